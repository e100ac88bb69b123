// SPDX-License-Identifier: MIT
// A walk over the map of an image area: every chunk once, in the order of the keys.
//
// Nothing in the area is trusted: a block is entered only when it lies where blocks can lie and no other
// block overlaps it, so whatever the map says, the walk reads no block twice and comes to its end.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "formats/image_area.h"
#include "tools/area_file.h"

namespace image_tool {

enum class MapFault {
    not_a_block,  // below the first block, or not on a multiple of 8 sectors
    beyond_area,
    beyond_used,
    referenced_twice,
    unreachable,    // a level-1 entry that no key leads to
    before_parent,  // handed out before the block that names it; the walk enters it all the same
};

struct MapChunk {
    std::uint32_t key;
    formats::Entry_64K entry;
    bool has_data;  // Data_Sec names a data block of its own
};

class MapWalk {
public:
    using FaultHandler = std::function<void(MapFault, const std::string& what)>;

    // Blocks lie below used. The handler may throw to end the walk.
    MapWalk(const AreaFile& area, const formats::RootTable& root, std::uint32_t used, FaultHandler on_fault);

    // The next chunk with anything in its entry, null after the last. Valid until the next call.
    const MapChunk* next();

    // Where the leaf of the chunk last returned lies, and which of its entries that is.
    std::uint32_t leaf_sector() const { return sector_[3]; }
    unsigned leaf_entry() const { return next_leaf_index_ - 1; }
    // Behind the last block found so far.
    std::uint32_t end_sector() const { return end_sector_; }
    // Blocks found so far, the root table not counted.
    std::uint32_t map_blocks() const { return map_blocks_; }
    std::uint32_t data_blocks() const { return data_blocks_; }

private:
    // Levels count from the root table, 0, to the leaf, 3.
    bool enter_next(unsigned level);
    bool enter(unsigned level, std::uint32_t sector);
    bool claim(unsigned level, std::uint32_t sector);
    std::uint32_t key(unsigned level) const;

    static constexpr std::array<unsigned, 3> table_size = {formats::root_entries, formats::map_entries,
                                                           formats::map_entries};

    const AreaFile& area_;
    FaultHandler on_fault_;
    std::uint32_t used_;
    std::vector<bool> claimed_;               // per 8 sectors
    std::array<formats::MapBlock, 3> table_;  // root (the first 128 entries), level 1, level 2
    std::array<unsigned, 3> next_index_{};    // in each table; the open child is the one before
    std::array<std::uint32_t, 4> sector_{};   // of the root, the tables and the leaf
    formats::LeafBlock leaf_;
    unsigned next_leaf_index_ = formats::leaf_entries;
    MapChunk chunk_{};
    std::uint32_t end_sector_ = formats::first_block_sector;
    std::uint32_t map_blocks_ = 0;
    std::uint32_t data_blocks_ = 0;
};

}  // namespace image_tool
