// SPDX-License-Identifier: MIT
#include "campaign/content.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include <fmt/format.h>

namespace campaign {
namespace {

constexpr unsigned groups = formats::sector_bytes / 8;

// First word: place of the group. Second word: generation, LUN and start.
struct Group {
    std::uint32_t lba : 26;
    std::uint32_t index : 6;
    std::uint32_t generation : 24;
    std::uint32_t lun : 2;
    std::uint32_t start : 6;

    bool operator==(const Group&) const = default;
};
static_assert(sizeof(Group) == 8 && groups == 64);

Group group_of(std::span<const std::uint8_t> sector, unsigned index)
{
    Group group;
    std::memcpy(&group, &sector[index * sizeof group], sizeof group);
    return group;
}

bool all_zeros(std::span<const std::uint8_t> sector)
{
    // Every byte equals the one before it.
    return sector[0] == 0 && std::memcmp(&sector[0], &sector[1], sector.size() - 1) == 0;
}

}  // namespace

Sector sector_content(Place place, Generation generation, unsigned start)
{
    if (generation == zeros)
        return {};
    const Group first{.lba = place.lba & lba_max,
                      .index = 0,
                      .generation = generation & generation_max,
                      .lun = place.lun & 3,
                      .start = start & 63};
    constexpr auto next_index = std::bit_cast<std::uint64_t>(Group{0, 1, 0, 0, 0});
    std::array<std::uint64_t, groups> words;
    words[0] = std::bit_cast<std::uint64_t>(first);
    for (unsigned i = 1; i < groups; ++i)
        words[i] = words[i - 1] + next_index;
    return std::bit_cast<Sector>(words);
}

std::optional<Named> name_of(Place place, std::span<const std::uint8_t> sector)
{
    if (all_zeros(sector))
        return Named{zeros, 0};
    const Group first = group_of(sector, 0);
    const Sector right = sector_content(place, first.generation, first.start);
    if (first.generation == zeros || std::memcmp(right.data(), sector.data(), right.size()) != 0)
        return std::nullopt;
    return Named{first.generation, first.start};
}

std::optional<Generation> Generations::newest_part(Place place, std::span<const std::uint8_t> sector) const
{
    Generation newest = zeros;
    for (unsigned i = 0; i < groups; ++i) {
        const Group group = group_of(sector, i);
        const Named named{group.generation, group.start};
        const Group right{place.lba & lba_max, i & 63, group.generation, place.lun & 3, group.start};
        if (named.generation == zeros || !known(named) || group != right)
            return std::nullopt;
        newest = std::max(newest, named.generation);
    }
    return newest;
}

std::string describe(std::span<const std::uint8_t> sector)
{
    if (all_zeros(sector))
        return "zeros";
    std::string text;
    unsigned begin = 0;
    for (unsigned i = 1; i <= groups; ++i) {
        Group expected = group_of(sector, begin);
        expected.index = (expected.index + i - begin) & 63;
        if (i < groups && group_of(sector, i) == expected)
            continue;
        const Group group = group_of(sector, begin);
        text += fmt::format("{}groups {}-{}: LUN {} LBA {} group {} generation {} start {}",
                            text.empty() ? "" : "; ", begin, i - 1, unsigned{group.lun}, unsigned{group.lba},
                            unsigned{group.index}, unsigned{group.generation}, unsigned{group.start});
        begin = i;
        if (text.size() > 300)
            return text + "; ...";
    }
    return text;
}

}  // namespace campaign
