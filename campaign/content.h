// SPDX-License-Identifier: MIT
// What sectors hold: every group of 8 bytes names its own place, the write that it came with, and the start
// of the workstation during which that was. A sector of zeros is generation 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "formats/boot_block.h"

namespace campaign {

using Sector = std::array<std::uint8_t, formats::sector_bytes>;

struct Place {
    unsigned lun;
    std::uint32_t lba;
};

// Numbers the writes of a seed from 1 on.
using Generation = std::uint32_t;
constexpr Generation zeros = 0;
constexpr Generation initial = 1;  // what is on the disks at the beginning
constexpr Generation generation_max = (1u << 24) - 1;
constexpr std::uint32_t lba_max = (1u << 26) - 1;

Sector sector_content(Place place, Generation generation, unsigned start);

// The generation of a sector of this place that is whole.
struct Named {
    Generation generation;
    unsigned start;
};
std::optional<Named> name_of(Place place, std::span<const std::uint8_t> sector);

// All generations of a seed: numbers new ones, and knows what each of them writes.
class Generations {
public:
    Generation add(unsigned start)
    {
        start_of_.push_back(static_cast<std::uint8_t>(start));
        return static_cast<Generation>(start_of_.size() - 1);
    }
    Sector content(Place place, Generation generation) const
    {
        return sector_content(place, generation, start_of_[generation]);
    }
    bool known(const Named& named) const
    {
        return named.generation < start_of_.size() && start_of_[named.generation] == named.start;
    }

    // The newest content that has a part in this sector of the place; nothing when a part is none of them.
    std::optional<Generation> newest_part(Place place, std::span<const std::uint8_t> sector) const;

private:
    std::vector<std::uint8_t> start_of_{0, 0};
};

// What the sector says of itself, for the report of a fault.
std::string describe(std::span<const std::uint8_t> sector);

}  // namespace campaign
