// SPDX-License-Identifier: MIT
// A picture of how much of a disk is present.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace image_tool {

class Picture {
public:
    // Of a disk of this size, in lines of at most width cells.
    Picture(std::uint64_t sectors, unsigned width, bool ascii);

    void add(std::uint32_t chunk, unsigned present_sectors);
    // Lines with the chunk that each starts with, and a legend.
    std::string text() const;

private:
    std::string cell(std::size_t index) const;

    std::uint64_t sectors_;
    unsigned width_;
    bool ascii_;
    std::uint32_t chunks_per_cell_;
    std::vector<std::uint64_t> present_;  // sectors per cell
};

}  // namespace image_tool
