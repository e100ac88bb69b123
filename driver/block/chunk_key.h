// SPDX-License-Identifier: MIT
// The number that names one 64 KB chunk of one disk, and the measures that go with it.
#pragma once

#include <nt.h>

#include "formats/image_area.h"

// (LUN, sector): bits 29 to 31 are the LUN modulo 8, bits 0 to 28 the chunk's number modulo 2^29.
constexpr auto Chunk_Key = formats::chunk_key;

constexpr ULONG Chunk_Secs = formats::chunk_sectors;
constexpr ULONG Chunk_Sec_Mask = Chunk_Secs - 1;
constexpr LONG Chunk_64K = formats::chunk_bytes;
constexpr LONG Sector_Bytes = formats::sector_bytes;
