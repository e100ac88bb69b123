// SPDX-License-Identifier: MIT
// The BIOS disk calls for our disks, from drive 80h on.
#pragma once

#include "boot/geometry.h"

namespace boot {

// Before the handlers are installed.
void add_drive(std::uint32_t sectors, const Geometry& geometry);
// Has the BIOS count our disks too.
void announce_drives();

}  // namespace boot
