// SPDX-License-Identifier: MIT
// Which chunks of a disk a server's image area holds, and how large that area is.
#pragma once

#include <cstdint>
#include <functional>

#include "tools/disk_contents.h"

namespace image_tool {

// Visits every chunk that an area of the disk has to hold, in order, with its contents. `what` names the
// command to those who wait.
void for_each_chunk_to_store(
    const DiskContents& disk, const char* what,
    const std::function<void(std::uint32_t chunk, const ChunkContents& contents)>& visit);

struct AreaSize {
    std::uint32_t chunks = 0;
    std::uint64_t map_blocks = 0;  // the root table not counted

    void add(std::uint32_t chunk);
    std::uint64_t sectors() const;

private:
    std::uint32_t last_ = no_chunk;
};

// Reads the whole disk.
AreaSize measure_area_of(const DiskContents& disk);

}  // namespace image_tool
