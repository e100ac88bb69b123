// SPDX-License-Identifier: MIT
// What the driver counts of each disk's RAM cache. It exports an array of disk_count_max of these as
// QRN_Cache_Stats, for debuggers and for programs that run the driver. Words change while they are read.
#pragma once

#include <cstdint>

namespace formats {

struct CacheStats {
    std::uint32_t Cache_MB;        // size asked for; 0: the disk has no RAM cache
    std::uint32_t Blocks;          // 64 KB data blocks of the memory, shared by disks of the same size
    std::uint32_t Blocks_Used;     // of them, filled or written by this disk
    std::uint32_t Hits;            // reads within one block that the cache served
    std::uint32_t Misses;          // runs read from the server
    std::uint32_t Fills;           // pieces of such runs kept in a block
    std::uint32_t Write_Backs;     // runs of this disk's written sectors brought to the server
    std::uint32_t Write_Throughs;  // writes within one block that went to the server at once
};
static_assert(sizeof(CacheStats) == 32);

}  // namespace formats
