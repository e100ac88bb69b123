// SPDX-License-Identifier: MIT
// The disks of a simulated workstation, described once for both sides: for the boot parameter block that the
// driver finds, and for the servers that the block names.
#pragma once

#include <array>
#include <cstdint>

#include "formats/boot_block.h"

namespace simulation {

struct Disk {
    std::uint32_t sectors = 2048;
    std::uint8_t flags = 0x04;  // Disk_Flags; 0: packets of 8 KB and 6 KB
    unsigned read_kb = 8, write_kb = 8;
    std::uint8_t retry_mins = 1;
    bool mirrored = false;
    bool slave_server = true;    // of a mirrored disk; false: its record is empty from the start
    std::uint32_t cache_mb = 0;  // what the servers answer to the cache negotiation
};

struct Boot {
    std::uint32_t mode;
    std::uint8_t flags;
    std::uint32_t tag_key;
    std::uint16_t rack_level;
};

// Main servers are server_address(0), slaves server_address(1).
formats::ServerRecord server_address(unsigned index);
std::array<std::uint8_t, 4> disk_id(unsigned lun, bool mirrored);

// A block without disks, and a disk more in it, as the next LUN.
formats::Boot_Param boot_block(const Boot& boot);
void add_disk(formats::Boot_Param& block, const Disk& disk);

}  // namespace simulation
