// SPDX-License-Identifier: MIT
#include "tools/picture.h"

#include <algorithm>

#include <fmt/format.h>

#include "formats/image_area.h"

namespace image_tool {

using formats::chunk_sectors;

namespace {

constexpr unsigned lines_max = 20;

// Nothing, less than a third, two thirds, all, and all.
constexpr const char* plain_shades[] = {".", "-", "+", "*", "#"};
constexpr const char* block_shades[] = {"·", "░", "▒", "▓", "█"};

}  // namespace

Picture::Picture(std::uint64_t sectors, unsigned width, bool ascii)
    : sectors_(sectors), width_(width), ascii_(ascii)
{
    const std::uint64_t chunks = (sectors + chunk_sectors - 1) / chunk_sectors;
    const std::uint64_t cells_max = std::uint64_t{width} * lines_max;
    chunks_per_cell_ =
        static_cast<std::uint32_t>(std::max<std::uint64_t>(1, (chunks + cells_max - 1) / cells_max));
    present_.resize((chunks + chunks_per_cell_ - 1) / chunks_per_cell_);
}

void Picture::add(std::uint32_t chunk, unsigned present_sectors)
{
    if (chunk / chunks_per_cell_ < present_.size())
        present_[chunk / chunks_per_cell_] += present_sectors;
}

std::string Picture::cell(std::size_t index) const
{
    const auto& shades = ascii_ ? plain_shades : block_shades;
    const std::uint64_t cell_sectors = std::uint64_t{chunks_per_cell_} * chunk_sectors;
    const std::uint64_t all = std::min(cell_sectors, sectors_ - index * cell_sectors);
    const std::uint64_t present = present_[index];
    if (present == 0)
        return shades[0];
    return shades[present >= all ? 4 : 1 + present * 3 / all];
}

std::string Picture::text() const
{
    std::string text;
    for (std::size_t line = 0; line < present_.size(); line += width_) {
        text += fmt::format("{:9} ", line * chunks_per_cell_);
        for (std::size_t i = line; i < std::min(line + width_, present_.size()); ++i)
            text += cell(i);
        text += '\n';
    }
    const auto& shades = ascii_ ? plain_shades : block_shades;
    return text + fmt::format("          one cell is {} chunks ({} KB): {} none, {}{}{} part, {} all\n",
                              chunks_per_cell_, std::uint64_t{chunks_per_cell_} * 64, shades[0], shades[1],
                              shades[2], shades[3], shades[4]);
}

}  // namespace image_tool
