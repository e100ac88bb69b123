// SPDX-License-Identifier: MIT
// What the server counts, as JSON for others to read while it runs, and as a summary at its end.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "server/options.h"
#include "server/protocol.h"
#include "server/udp_socket.h"

namespace server {

struct PolledWorkstation {
    Peer address;
    formats::PollReply reply;
};

struct Statistics {
    const Options& options;
    const Protocol& protocol;
    const SocketCounters& socket;
    std::span<const std::uint64_t> disk_bytes;
    std::string address;
    double uptime_s;
    std::uint64_t strangers;
    std::span<const PolledWorkstation> workstations;

    std::string json() const;
    std::string summary() const;
};

}  // namespace server
