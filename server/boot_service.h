// SPDX-License-Identifier: MIT
// Answers PCs that boot from the network. No I/O of its own, single-threaded, called with every packet before
// the protocol core. It never trusts a packet.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>

#include "formats/boot_request.h"
#include "server/protocol.h"

namespace server {

// What one PC gets. Without a block it is refused, and the text says why.
struct BootDecision {
    std::optional<formats::Boot_Param> block;
    std::string text;  // for the PC's screen, cut to one line of 79 characters
};

class BootService {
public:
    using Decide = std::function<BootDecision(const formats::BootRequest&)>;
    BootService(PacketSink& sink, Decide decide) : sink_(sink), decide_(std::move(decide)) {}

    // False: the packet is no boot packet, and somebody else's.
    bool receive(const Peer& from, std::span<const std::uint8_t> packet);

private:
    void answer(const Peer& to, const formats::BootRequest& request, const BootDecision& decision);

    PacketSink& sink_;
    Decide decide_;
};

}  // namespace server
