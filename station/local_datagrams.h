// SPDX-License-Identifier: MIT
// Packets that the station itself exchanges, beside the driver: with a disk's servers before the driver is
// there, and with the driver to ask for its status. Sockets of their own; the callers wait.
#pragma once

#include <cstdint>
#include <optional>

#include "formats/boot_block.h"
#include "formats/wire.h"
#include "station/local_boot.h"
#include "station/unique_fd.h"

namespace station {

// LBA 0 of LUN 0 from its main server, or its slave; nothing when neither answers within a second.
std::optional<Sector> first_sector_of_server(const formats::Boot_Param& block);

// Asks the driver behind a UDP port of this host for its status, as a server would.
class StatusPoll {
public:
    // Throws std::system_error.
    explicit StatusPoll(std::uint16_t driver_port);
    // Nothing when no answer comes within a fifth of a second.
    std::optional<formats::PollReply> ask();

private:
    UniqueFd socket_;
    formats::ServerRecord self_{};
    std::uint8_t number_ = 0;
};

}  // namespace station
