// SPDX-License-Identifier: MIT
// What carries packets below the transport device: real UDP sockets, or a simulated network.
#pragma once

#include <cstdint>
#include <span>

#include "formats/boot_block.h"

namespace machine {

class Link {
public:
    virtual ~Link() = default;

    // Sends one packet (header bytes, then data bytes) to the server that the record names. Called by
    // many threads at once, at up to DISPATCH_LEVEL; both spans are the caller's again on return.
    // A record without a server, or one the link cannot reach, loses the packet.
    virtual void send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
                      std::span<const std::uint8_t> data) = 0;

    // Waits for the next packet (PASSIVE_LEVEL, one thread). Returns its length and sets *packet to
    // its first byte; the buffer has room for at least formats::poll_buffer_bytes and is writable.
    // Returns 0 with *packet null when the wait ended without a packet.
    virtual std::uint32_t receive(void** packet) = 0;

    // Gives a buffer of receive() back. Exactly once each; anything else is a violation.
    virtual void release(void* packet) = 0;
};

struct LinkCounters {
    std::uint64_t packets_sent = 0;
    std::uint64_t bytes_sent = 0;
    std::uint64_t packets_received = 0;
    std::uint64_t bytes_received = 0;
    std::uint64_t send_calls = 0;  // system calls (UDP link)
    std::uint64_t receive_calls = 0;
};

}  // namespace machine
