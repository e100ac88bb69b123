// SPDX-License-Identifier: MIT
#include "driver/state/memory_probe.h"

#include "driver/kernel/locks.h"
#include "driver/kernel/registry.h"
#include "driver/state/settings.h"

LONG PAE_Nums = -1;

// Phys_Low and Phys_High are published together under Phys_Lock.
static ULONGLONG Phys_Low = 0x08000000;
static ULONGLONG Phys_High = 0xFFFFFFFF;
static KSPIN_LOCK Phys_Lock;

constexpr ULONGLONG Large_Range_Bytes = 0x4000000;
constexpr ULONG Probe_Block_Bytes = 4 * 1024 * 1024;
constexpr LONG Probe_Blocks_Max = 15360;  // 60 GB
constexpr LONGLONG Four_GB = 0x100000000;
constexpr ULONG Probe_Pattern = 0x55AA55AA;

Phys_Span Phys_Span_Get()
{
    Spin_Guard Guard(Phys_Lock);
    return {Phys_Low, Phys_High};
}

static void Phys_Span_Set(const Phys_Span& Span)
{
    Spin_Guard Guard(Phys_Lock);
    Phys_Low = Span.Low;
    Phys_High = Span.High;
}

void Phys_Low_Raise(ULONG Bytes)
{
    Spin_Guard Guard(Phys_Lock);
    Phys_Low += Bytes;
}

ULONG PAE_Flag()
{
    UNICODE_STRING Path;
    RtlInitUnicodeString(&Path, L"\\Registry\\Machine\\System\\CurrentControlSet");
    ULONG Flag = 0;
    if (HANDLE Key = Reg_Open(&Path, L"Control\\Session Manager\\Memory Management")) {
        Reg_Dword(Key, L"PhysicalAddressExtension", &Flag);
        ZwClose(Key);
    }
    DbgPrint("\nQRN MDL: PAE Flag:%d", Flag);
    return Flag;
}

// Total bytes of the ranges; their large ones make the span.
static ULONGLONG Walk_Ranges(const PHYSICAL_MEMORY_RANGE* pRange, Phys_Span& Span)
{
    ULONGLONG Total = 0;
    bool First = true;
    Span.High = 0;
    for (; pRange->NumberOfBytes.QuadPart != 0; ++pRange) {
        auto Base = static_cast<ULONGLONG>(pRange->BaseAddress.QuadPart);
        auto Bytes = static_cast<ULONGLONG>(pRange->NumberOfBytes.QuadPart);
        Total += Bytes;
        if (Bytes <= Large_Range_Bytes)
            continue;
        if (First || Base < Span.Low)
            Span.Low = Base;
        if (Base + Bytes > Span.High)
            Span.High = Base + Bytes;
        First = false;
    }
    return Total;
}

LONG Phys_Mem_Probe()
{
    PPHYSICAL_MEMORY_RANGE pRanges = MmGetPhysicalMemoryRanges();
    if (!pRanges)
        return 0;
    Phys_Span Span = Phys_Span_Get();
    bool Usable = pRanges->BaseAddress.QuadPart != 0;
    ULONGLONG Total = Usable ? Walk_Ranges(pRanges, Span) : 0;
    ExFreePool(pRanges);
    if (!Usable)
        return 0;
    Phys_Span_Set(Span);

    auto Total_MB = static_cast<ULONG>(Total >> 20);
    LONG Result = Total_MB < PAE_SIZE ? -static_cast<LONG>(Total_MB) : static_cast<LONG>(Total_MB);
    DbgPrint("\nQRN MDL: MmGetPhysicalMemory %dMB(%X%08X-%X%08X), PAE_Gate:%d", Result,
             static_cast<ULONG>(Span.Low >> 32), static_cast<ULONG>(Span.Low),
             static_cast<ULONG>(Span.High >> 32), static_cast<ULONG>(Span.High), PAE_SIZE);
    return Result;
}

static void* Map_4M(LONG Index)
{
    PHYSICAL_ADDRESS Address;
    Address.QuadPart = Four_GB + static_cast<LONGLONG>(Index) * Probe_Block_Bytes;
    return MmMapIoSpace(Address, Probe_Block_Bytes, MmNonCached);
}

// Whether the word holds a write; it keeps its value.
static bool Holds_Write(volatile LONG* pWord)
{
    LONG Value = *pWord;
    *pWord = Value ^ static_cast<LONG>(Probe_Pattern);
    return InterlockedExchange(pWord, Value) != Value;
}

LONG PAE_Probe()
{
    ULONG Flag = PAE_Flag();
    LONG Memory_MB = Phys_Mem_Probe();
    if (Flag == 0 || Memory_MB <= 0)
        return 0;
    // The kernel exports the variable itself; the headers declare what it is reached through.
    if (*reinterpret_cast<volatile BOOLEAN*>(&Mm64BitPhysicalAddress)) {
        DbgPrint("\nQRN MDL: Mm64Bit");
        return 0;
    }
    LONG Blocks = 0;
    while (Blocks < Probe_Blocks_Max) {
        void* pBlock = Map_4M(Blocks);
        if (!pBlock)
            break;
        bool Present = Holds_Write(static_cast<volatile LONG*>(pBlock));
        MmUnmapIoSpace(pBlock, Probe_Block_Bytes);
        if (!Present)
            break;
        ++Blocks;
    }
    DbgPrint("\nQRN MDL: PAE Memory:%dMB %d", Blocks * 4, Blocks);
    return Blocks;
}
