// SPDX-License-Identifier: MIT
// Packets that the station itself exchanges with a disk's servers before the driver is there. Sockets of
// their own; the callers wait.
#pragma once

#include <optional>

#include "formats/boot_block.h"
#include "station/local_boot.h"

namespace station {

// LBA 0 of LUN 0 from its main server, or its slave; nothing when neither answers within a second.
std::optional<Sector> first_sector_of_server(const formats::Boot_Param& block);

}  // namespace station
