// SPDX-License-Identifier: MIT
// A read of a disk's LBA 0 without the driver: the request, and what is an answer to it. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "formats/boot_block.h"
#include "formats/wire.h"
#include "station/local_boot.h"
#include "station/unique_fd.h"

namespace station {

// A socket that exchanges packets with one peer only; an empty one when there is no way to it.
UniqueFd connected_socket(const formats::ServerRecord& peer);

formats::WireHeader first_sector_request(const formats::Boot_Param& block, unsigned disk);

// Nothing when the packet is no whole answer to this request.
std::optional<Sector> sector_of_answer(const formats::WireHeader& request,
                                       std::span<const std::uint8_t> packet);

}  // namespace station
