// SPDX-License-Identifier: MIT
// Lays out a new image area: blocks one behind the other in the order in which a workstation that writes
// the disk from its start to its end would hand them out.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "formats/image_area.h"
#include "tools/output_file.h"

namespace image_tool {

class AreaWriter {
public:
    // Sizes in sectors; the area may not become larger than the limit. The tag is the image's.
    AreaWriter(OutputFile& file, std::uint32_t disk_sectors, std::uint32_t limit_sectors,
               std::uint32_t modify_tag);

    // A chunk of LUN 0, present as far as the disk goes. Chunks come in ascending order. Throws ToolError
    // when there is no room left.
    void add(std::uint32_t chunk, std::uint32_t tag, std::span<const std::byte> data);
    // Writes what is still open, the header last. An image that was never changed has no time before.
    void finish(std::uint64_t create_time, std::uint64_t modify_time, std::uint64_t previous_time = 0);

    std::uint32_t used_sectors() const { return header_.Used.get(); }

private:
    std::uint32_t allocate(std::uint32_t sectors);
    void enter(std::uint32_t key);
    void open(unsigned level, std::uint32_t key);
    void close(unsigned level);
    template <typename Object>
    void write(std::uint32_t sector, const Object& object);

    OutputFile& file_;
    std::uint32_t limit_sectors_;
    formats::ImageHeader header_{};
    std::array<formats::MapBlock, 3> table_{};  // root (the first 128 entries), level 1, level 2
    formats::LeafBlock leaf_{};
    std::array<std::uint32_t, 4> sector_{};  // of the open block of each level; 0: none
    std::uint32_t key_ = 0;                  // the last one entered
};

}  // namespace image_tool
