// SPDX-License-Identifier: MIT
#include "tools/map_walk.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

namespace image_tool {

using namespace formats;

namespace {

bool is_empty(const Entry_64K& entry)
{
    return is_zero(std::as_bytes(std::span(&entry, 1)));
}

}  // namespace

MapWalk::MapWalk(const AreaFile& area, const RootTable& root, std::uint32_t used, FaultHandler on_fault)
    : area_(area), on_fault_(std::move(on_fault)), used_(used),
      claimed_(std::min(used, area.sectors()) / map_block_sectors)
{
    sector_[0] = root_sector;
    next_index_ = {0, table_size[1], table_size[2]};
    std::memcpy(&table_[0], &root, sizeof root);
}

const MapChunk* MapWalk::next()
{
    for (;;) {
        while (next_leaf_index_ < leaf_entries) {
            const Entry_64K& entry = leaf_.Chunk[next_leaf_index_++];
            if (is_empty(entry))
                continue;
            chunk_ = {key(3), entry, false};
            if (entry.Data_Sec.get() != 0 && claim(3, entry.Data_Sec.get())) {
                chunk_.has_data = true;
                ++data_blocks_;
            }
            return &chunk_;
        }
        if (!enter_next(2))
            return nullptr;
    }
}

// Opens the next child of the table at this level, going up for another table when this one is done.
bool MapWalk::enter_next(unsigned level)
{
    for (;;) {
        while (next_index_[level] < table_size[level]) {
            const unsigned index = next_index_[level]++;
            const std::uint32_t sector = table_[level].Next_Sec[index].get();
            if (sector == 0)
                continue;
            if (level == 1 && index >> 8 != ((next_index_[0] - 1) & 3))
                on_fault_(MapFault::unreachable,
                          fmt::format("entry {} of the level-1 block under root entry {}: sector {}", index,
                                      next_index_[0] - 1, sector));
            else if (enter(level, sector))
                return true;
        }
        if (level == 0 || !enter_next(level - 1))
            return false;
    }
}

// Reads the child and starts at its first entry.
bool MapWalk::enter(unsigned level, std::uint32_t sector)
{
    if (!claim(level, sector))
        return false;
    ++map_blocks_;
    sector_[level + 1] = sector;
    if (level + 1 < table_.size()) {
        next_index_[level + 1] = 0;
        return area_.read(sector, table_[level + 1]);
    }
    next_leaf_index_ = 0;
    return area_.read(sector, leaf_);
}

// Takes the block that the entry at this level names, unless there cannot be one.
bool MapWalk::claim(unsigned level, std::uint32_t sector)
{
    static constexpr const char* kinds[] = {"level-1", "level-2", "leaf", "data"};
    const std::uint32_t count = level < 3 ? map_block_sectors : chunk_sectors;
    const auto fault = [&](MapFault what) {
        on_fault_(what, fmt::format("{} block at sector {} for chunk key {:08X}", kinds[level], sector,
                                    key(level)));
        return false;
    };
    if (sector < first_block_sector || sector % map_block_sectors != 0)
        return fault(MapFault::not_a_block);
    if (!area_.has(sector, count))
        return fault(MapFault::beyond_area);
    if (sector > used_ || count > used_ - sector)
        return fault(MapFault::beyond_used);
    const auto first = claimed_.begin() + sector / map_block_sectors;
    const auto end = first + count / map_block_sectors;
    if (std::find(first, end, true) != end)
        return fault(MapFault::referenced_twice);
    std::fill(first, end, true);
    end_sector_ = std::max(end_sector_, sector + count);
    if (sector < sector_[level])
        fault(MapFault::before_parent);
    return true;
}

// Of the entry last taken from the table at this level: the first chunk under it.
std::uint32_t MapWalk::key(unsigned level) const
{
    std::uint32_t key = (next_index_[0] - 1) << 25;
    if (level > 0)
        key |= ((next_index_[1] - 1) & 0xFF) << 17;
    if (level > 1)
        key |= (next_index_[2] - 1) << 7;
    return level > 2 ? key | (next_leaf_index_ - 1) : key;
}

}  // namespace image_tool
