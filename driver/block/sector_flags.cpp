// SPDX-License-Identifier: MIT
#include "driver/block/sector_flags.h"

#include "driver/kernel/bytes.h"

constexpr ULONG All_Ones = 0xFFFFFFFF;
constexpr UCHAR Low_Ones_Tbl[16] = {0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0, 4};

ULONG Low_Ones(UCHAR Byte)
{
    ULONG Ones = Low_Ones_Tbl[Byte & 15];
    return Ones < 4 ? Ones : 4u + Low_Ones_Tbl[Byte >> 4];
}

// Flip is 0 to measure set flags and 0xFF to measure clear ones.
static LONG Run_Len(const UCHAR* pMap, ULONG Start, LONG Bytes, UCHAR Flip)
{
    if (Bytes < 512)
        return 0;
    ULONG Left = static_cast<ULONG>(Bytes) / 512;
    ULONG Count = 0;
    pMap += Start / 8;
    ULONG Shift = Start % 8;
    for (;;) {
        ULONG Available = Smaller(8 - Shift, Left);
        ULONG Ones = Low_Ones(static_cast<UCHAR>((*pMap ^ Flip) >> Shift));
        if (Ones < Available)
            return static_cast<LONG>((Count + Ones) * 512);
        Count += Available;
        Left -= Available;
        if (Left == 0)
            return static_cast<LONG>(Count * 512);
        ++pMap;
        Shift = 0;
    }
}

LONG SecFlag_Hit_Len(const UCHAR* pMap, ULONG Start, LONG Bytes)
{
    return Run_Len(pMap, Start, Bytes, 0);
}

LONG SecFlag_Miss_Len(const UCHAR* pMap, ULONG Start, LONG Bytes)
{
    return Run_Len(pMap, Start, Bytes, 0xFF);
}

static void Put(ULONG& Word, ULONG Mask, bool Set)
{
    Word = Set ? Word | Mask : Word & ~Mask;
}

static void Put_Run(UCHAR* pMap, ULONG Start, LONG Bytes, bool Set)
{
    if (Bytes < 512)
        return;
    ULONG Left = static_cast<ULONG>(Bytes) / 512;
    ULONG* pWord = reinterpret_cast<ULONG*>(pMap) + Start / 32;
    if (ULONG Offset = Start % 32) {
        ULONG Bits = Smaller(32 - Offset, Left);
        Put(*pWord++, ((1u << Bits) - 1) << Offset, Set);
        Left -= Bits;
    }
    for (; Left >= 32; Left -= 32)
        *pWord++ = Set ? All_Ones : 0;
    if (Left != 0)
        Put(*pWord, (1u << Left) - 1, Set);
}

void SecFlag_Set(UCHAR* pMap, ULONG Start, LONG Bytes)
{
    Put_Run(pMap, Start, Bytes, true);
}

void SecFlag_Clr(UCHAR* pMap, ULONG Start, LONG Bytes)
{
    Put_Run(pMap, Start, Bytes, false);
}
