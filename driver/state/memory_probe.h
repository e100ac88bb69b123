// SPDX-License-Identifier: MIT
// How much physical memory there is, and how much of it lies above 4 GB where a 32-bit system does not
// use it.
#pragma once

#include <nt.h>

// 4 MB blocks found above 4 GB: -1 until the probe has run, 0 when there are none.
extern LONG PAE_Nums;

// The span of the physical memory ranges larger than 64 MB, in bytes, of the last Phys_Mem_Probe.
struct Phys_Span {
    ULONGLONG Low;
    ULONGLONG High;
};
Phys_Span Phys_Span_Get();
// Page allocations start so much higher until the next Phys_Mem_Probe.
void Phys_Low_Raise(ULONG Bytes);

// Value of PhysicalAddressExtension, 0 when it cannot be read. PASSIVE_LEVEL.
ULONG PAE_Flag();
// Total physical memory in MB, negated when it is below PAE_SIZE; 0 when it is unknown. Any thread at
// PASSIVE_LEVEL, at start-up and later.
LONG Phys_Mem_Probe();
// Number of 4 MB blocks above 4 GB that hold what is written to them. Loading thread.
LONG PAE_Probe();
