// SPDX-License-Identifier: MIT
// Reading the registry. Any thread at PASSIVE_LEVEL.
#pragma once

#include <nt.h>

// Opens Path, or Sub_Key below it; null when that fails. Close with ZwClose.
HANDLE Reg_Open(PUNICODE_STRING pPath, PCWSTR Sub_Key);
// The value with its data in pool memory (tag "QRNR"), or null.
PKEY_VALUE_FULL_INFORMATION Reg_Query(HANDLE Key, PCWSTR Name);
// 0: stored in *pOut (which may be null); -1: missing or unreadable; -2: no REG_DWORD of 4 bytes.
LONG Reg_Dword(HANDLE Key, PCWSTR Name, ULONG* pOut);
