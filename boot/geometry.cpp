// SPDX-License-Identifier: MIT
#include "boot/geometry.h"

namespace boot {

namespace {

constexpr unsigned table_offset = 446, entry_bytes = 16;

std::uint32_t le32(const std::uint8_t* bytes)
{
    return bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8 | static_cast<std::uint32_t>(bytes[2]) << 16 |
           static_cast<std::uint32_t>(bytes[3]) << 24;
}

// Whether the entry's last sector by cylinder, head and sector is its last one by number, where the first can
// say it.
bool fits(const std::uint8_t* entry, unsigned heads, unsigned sectors)
{
    const std::uint32_t last = le32(entry + 8) + le32(entry + 12) - 1;
    const unsigned cylinder = entry[7] | (entry[6] & 0xC0u) << 2, sector = entry[6] & 63u;
    if (last >= 1023u * heads * sectors)
        return true;
    return (cylinder * heads + entry[5]) * sectors + sector - 1 == last;
}

}  // namespace

Geometry geometry_of(std::uint32_t disk_sectors, const std::uint8_t* sector_0)
{
    unsigned heads = 255, sectors = 63;
    if (sector_0[510] == 0x55 && sector_0[511] == 0xAA) {
        unsigned table_heads = 0, table_sectors = 0;
        bool agreed = true;
        for (unsigned i = 0; i < 4; ++i) {
            const std::uint8_t* entry = sector_0 + table_offset + i * entry_bytes;
            if (entry[4] == 0 || le32(entry + 12) == 0)
                continue;
            if (table_sectors == 0) {
                table_heads = entry[5] + 1u;
                table_sectors = entry[6] & 63u;
            }
            agreed =
                agreed && table_sectors != 0 && table_heads <= 255 && fits(entry, table_heads, table_sectors);
        }
        // One head or a short track is the end of an odd partition, no geometry.
        if (agreed && table_sectors >= 17 && table_heads >= 2) {
            heads = table_heads;
            sectors = table_sectors;
        }
    }
    std::uint32_t cylinders = disk_sectors / (heads * sectors);
    if (cylinders == 0)
        cylinders = 1;
    return {static_cast<std::uint16_t>(cylinders < 1024 ? cylinders : 1024),
            static_cast<std::uint16_t>(heads), static_cast<std::uint8_t>(sectors)};
}

bool to_lba(const Geometry& geometry, std::uint16_t cx, std::uint8_t head, std::uint32_t& lba)
{
    const unsigned cylinder = cx >> 8 | (cx & 0xC0u) << 2, sector = cx & 63u;
    if (sector == 0 || sector > geometry.sectors || head >= geometry.heads)
        return false;
    lba = (static_cast<std::uint32_t>(cylinder) * geometry.heads + head) * geometry.sectors + sector - 1;
    return true;
}

}  // namespace boot
