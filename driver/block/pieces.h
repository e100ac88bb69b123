// SPDX-License-Identifier: MIT
// Cuts a run of sectors into pieces of one 64 KB chunk each, for block objects that keep data in chunks.
#pragma once

#include "driver/block/chunk_key.h"
#include "driver/kernel/bytes.h"

// Bytes from the sector of a chunk to the chunk's end, at most Left.
inline LONG In_Chunk(ULONG Sec, LONG Left)
{
    return Smaller(static_cast<LONG>(Chunk_Secs - Sec) * Sector_Bytes, Left);
}

// Do_Piece(sector in the chunk, chunk key, buffer, bytes left of the run, bytes of the piece) returns what a
// block object does; it may do more than its own chunk, and then the run goes on behind that. The result is a
// block object's for the whole run; 0 for an empty one.
template <typename Piece>
LONG Run_In_Pieces(ULONG Lun, ULONGLONG Sector, PVOID pBuffer, LONG Bytes, Piece Do_Piece)
{
    auto pNext = static_cast<UCHAR*>(pBuffer);
    ULONG Key = Chunk_Key(Lun, Sector);
    ULONG Sec = static_cast<ULONG>(Sector) & Chunk_Sec_Mask;
    LONG Done = 0;
    for (LONG Left = Bytes; Left > 0;) {
        LONG Result = Do_Piece(Sec, Key, pNext, Left, In_Chunk(Sec, Left));
        if (Result <= 0 && Done != 0)
            return Done;
        if (Result <= 0)
            return Result != 0 ? Result : -Left;
        Done += Result;
        Left -= Result;
        pNext += Result;
        Sec += static_cast<ULONG>(Result / Sector_Bytes);
        Key += Sec / Chunk_Secs;
        Sec &= Chunk_Sec_Mask;
    }
    return Done;
}

// Length of a run of missing sectors that began with the Missing bytes up to a chunk's end and may go on in
// the chunks behind it, at most Left. Missing_In(chunk key, bytes) measures the beginning of one of those.
template <typename Measure>
LONG Missing_Run(ULONG Key, LONG Missing, LONG Left, Measure Missing_In)
{
    while (Missing < Left) {
        LONG Length = Smaller(Left - Missing, Chunk_64K);
        LONG More = Missing_In(++Key, Length);
        Missing += More;
        if (More != Length)
            break;
    }
    return Missing;
}
