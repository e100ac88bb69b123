// SPDX-License-Identifier: MIT
#include "tools/raw_layout.h"

#include <algorithm>
#include <memory>

#include "tools/progress.h"

namespace image_tool {

using namespace formats;

// Chunks of zeros are left out: below its synchronisation position a workstation takes what is absent for
// zeros. But the synchronisation moves chunk n as the disk's LBAs 128 n - 1 to 128 n + 126, so the last
// sector of a chunk travels with the one that follows it, which must be there for that. And its position ends
// at the last chunk, which it never takes for zeros.
void for_each_chunk_to_store(const DiskContents& disk, const char* what,
                             const std::function<void(std::uint32_t, const ChunkContents&)>& visit)
{
    const std::uint32_t chunks = chunk_count(disk.size_sectors());
    const auto contents = std::make_unique<ChunkContents>();
    Progress progress(what, chunks);
    bool carries_last_sector = false;
    for (std::uint32_t chunk = 0; chunk < chunks; ++chunk) {
        if (!carries_last_sector)
            chunk = std::min(disk.next_chunk(chunk), chunks - 1);
        progress.at(chunk);
        disk.read(chunk, *contents);
        const bool is_wanted = carries_last_sector || chunk == chunks - 1;
        if (!is_wanted && is_zero(contents->data))
            continue;
        visit(chunk, *contents);
        carries_last_sector = !is_zero(contents->sector(chunk_sectors - 1));
    }
}

void AreaSize::add(std::uint32_t chunk)
{
    ++chunks;
    for (const unsigned shift : {25, 17, 7})
        map_blocks += last_ == no_chunk || chunk >> shift != last_ >> shift;
    last_ = chunk;
}

std::uint64_t AreaSize::sectors() const
{
    return first_block_sector + map_blocks * map_block_sectors + std::uint64_t{chunks} * chunk_sectors;
}

AreaSize measure_area_of(const DiskContents& disk)
{
    AreaSize size;
    for_each_chunk_to_store(disk, "measure",
                            [&size](std::uint32_t chunk, const ChunkContents&) { size.add(chunk); });
    return size;
}

}  // namespace image_tool
