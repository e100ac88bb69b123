// SPDX-License-Identifier: MIT
// The simulated network in frames: every server of it is a host on one Ethernet, which answers ARP and speaks
// UDP, and a card hangs on the same wire. Frames of the card that are not as they have to be are violations.
#pragma once

#include <cstdint>
#include <span>

#include "formats/ethernet.h"
#include "machine/ndis/ndis.h"
#include "machine/transport/simulated_network.h"

namespace machine {

struct HostCounters {
    std::uint64_t arp_questions = 0, arp_answers = 0, datagrams = 0, misdirected = 0;
};

class FrameHosts {
public:
    // The workstation's port is where servers' packets go.
    FrameHosts(Scheduler& scheduler, SimulatedNetwork& network, std::uint16_t workstation_port);
    ~FrameHosts();

    // From then on the network's packets to the workstation arrive at this card.
    void connect(NdisCard& card);
    // A frame from the card.
    void take(std::span<const std::uint8_t> frame);

    // Frames as the hosts send them, for those who change them on the way.
    FrameBytes datagram_frame(const formats::ServerRecord& server,
                              std::span<const std::uint8_t> packet) const;
    FrameBytes arp_frame(const formats::ServerRecord& server, std::uint16_t operation) const;
    NdisCard* card() { return card_; }

    const HostCounters& counters() const { return counters_; }

private:
    void take_arp(const formats::ArpFrame& frame);
    void take_datagram(std::span<const std::uint8_t> frame);
    void arrive_later(FrameBytes frame);

    Scheduler& scheduler_;
    SimulatedNetwork& network_;
    const std::uint16_t port_;
    NdisCard* card_ = nullptr;
    HostCounters counters_;
};

}  // namespace machine
