// SPDX-License-Identifier: MIT
// Cylinders, heads and sectors of a disk, for those who still count that way. Needs no PC.
#pragma once

#include <cstdint>

namespace boot {

struct Geometry {
    std::uint16_t cylinders;  // at most 1024
    std::uint16_t heads;      // at most 255
    std::uint8_t sectors;     // of a track, at most 63
};

// As the partition table of sector 0 counts, when its entries agree with one another; else 255 heads, 63
// sectors.
Geometry geometry_of(std::uint32_t disk_sectors, const std::uint8_t* sector_0);

// Of the registers of a BIOS call. False: there is no such sector.
bool to_lba(const Geometry& geometry, std::uint16_t cx, std::uint8_t head, std::uint32_t& lba);

// Whether `count` sectors from `lba` are on the disk.
constexpr bool is_on_disk(std::uint32_t disk_sectors, std::uint32_t lba, std::uint32_t count)
{
    return lba <= disk_sectors && count <= disk_sectors - lba;
}

}  // namespace boot
