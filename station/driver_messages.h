// SPDX-License-Identifier: MIT
// Follows what the driver says about its disks: time-outs, and the server in use. The driver keeps
// these numbers to itself but for a server's poll; its debug messages tell them just as well, and that
// of a loaded driver file too.
#pragma once

#include <array>
#include <string>

#include "formats/boot_block.h"
#include "station/lun_statistics.h"

namespace station {

using AllLunStatistics = std::array<LunStatistics, formats::disk_count_max>;

// One message, in the thread that printed it: a change of servers is told right after the time-out
// that led to it, without naming the disk again.
void follow_driver_message(const std::string& text, AllLunStatistics& luns);

}  // namespace station
