// SPDX-License-Identifier: MIT
// The boot parameter block that describes a server's disks, as a network boot loader hands it over.
#pragma once

#include <cstdint>
#include <span>

#include "formats/boot_block.h"
#include "server/options.h"

namespace server {

// Disk n has disk_sectors[n] sectors and `self` as its main server.
formats::Boot_Param make_boot_parameters(std::span<const ServedDisk> disks,
                                         std::span<const std::uint32_t> disk_sectors,
                                         const formats::ServerRecord& self);

// Last four bytes by which a disk's packets are recognised; the same for a disk and its mirror.
void set_disk_parm(std::uint8_t (&parm)[4], unsigned lun);

}  // namespace server
