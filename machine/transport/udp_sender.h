// SPDX-License-Identifier: MIT
// The sending half of the UDP link. Every thread gathers its packets in a run of its own: packets of
// equal size to one address, which leave in one system call. A run leaves when it is full, when a
// packet does not continue it, with a packet that has no data (a request: its sender waits for the
// answer next), and when the thread flushes or ends.
//
// Any thread, up to DISPATCH_LEVEL; no locks.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "formats/boot_block.h"
#include "machine/transport/link.h"
#include "machine/transport/udp_socket.h"

namespace machine {

class UdpSender : public std::enable_shared_from_this<UdpSender> {
public:
    explicit UdpSender(std::shared_ptr<const UdpSocket> socket);

    // A packet of no more than 65507 bytes.
    void send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data);
    // Sends what the calling thread has gathered here.
    void flush();
    // Nothing is sent from now on.
    void stop() { stopped_ = true; }

    void add_counters(LinkCounters& counters) const;

private:
    struct Run;

    static std::unique_ptr<Run>& thread_run();  // may be null, or of another sender
    Run& own_run();
    void transmit(Run& run);
    void transmit_single(const Run& run);
    bool transmit_segmented(const Run& run);
    void transmit_one_by_one(const Run& run);

    const std::shared_ptr<const UdpSocket> socket_;
    const std::uint64_t id_;  // tells runs of an earlier link in the same thread apart
    std::atomic<bool> segmentation_;
    std::atomic<bool> stopped_ = false;
    std::atomic<std::uint64_t> packets_ = 0, bytes_ = 0, calls_ = 0;
};

}  // namespace machine
