// SPDX-License-Identifier: MIT
// Bit strings with one flag per 512-byte sector: flag i is bit i mod 8 of byte i / 8. Lengths are given
// and returned in bytes of the sectors; what is below a whole sector is not covered. The caller holds
// whatever lock guards the flags.
#pragma once

#include <nt.h>

// Number of one bits from bit 0 on.
ULONG Low_Ones(UCHAR Byte);

// Length of the run of set flags, or of clear ones, that begins at Start; at most Bytes.
LONG SecFlag_Hit_Len(const UCHAR* pMap, ULONG Start, LONG Bytes);
LONG SecFlag_Miss_Len(const UCHAR* pMap, ULONG Start, LONG Bytes);

// pMap is aligned to 32 bits.
void SecFlag_Set(UCHAR* pMap, ULONG Start, LONG Bytes);
void SecFlag_Clr(UCHAR* pMap, ULONG Start, LONG Bytes);
