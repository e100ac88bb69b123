// SPDX-License-Identifier: MIT
#include "driver/image/past_images.h"

#include "driver/block/chunk_key.h"
#include "driver/kernel/bytes.h"

// A bit per chunk; chunks of larger disks share bits, which only sends reads to the server that need not go
// there.
constexpr ULONG Past_Bits = 0x40000;
static volatile LONG Past_Images[Past_Bits / 32];

static bool Is_Past(ULONG Chunk)
{
    return (Past_Images[Chunk % Past_Bits / 32] >> Chunk % 32 & 1) != 0;
}

void Set_Past_Images(ULONG Sector, LONG Bytes)
{
    ULONG Last = (Sector + static_cast<ULONG>(Bytes / Sector_Bytes) - 1) / Chunk_Secs;
    for (ULONG Chunk = Sector / Chunk_Secs; Chunk <= Last; ++Chunk)
        InterlockedOr(&Past_Images[Chunk % Past_Bits / 32], static_cast<LONG>(1u << Chunk % 32));
}

LONG Like_Run(ULONG Sector, LONG Bytes, bool& Past)
{
    ULONG Chunk = Sector / Chunk_Secs;
    Past = Is_Past(Chunk);
    LONG Length = static_cast<LONG>(Chunk_Secs - Sector % Chunk_Secs) * Sector_Bytes;
    while (Length < Bytes && Is_Past(++Chunk) == Past)
        Length += Chunk_64K;
    return Smaller(Length, Bytes);
}
