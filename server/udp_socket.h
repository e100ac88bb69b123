// SPDX-License-Identifier: MIT
// The server's UDP socket. Packets come in batches, runs of equal size joined by the kernel; answers
// are gathered and leave in one system call per batch, runs of equal size as one message that the
// kernel cuts up. One thread.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "server/protocol.h"

namespace server {

struct SocketCounters {
    std::uint64_t packets_received = 0, bytes_received = 0, receive_calls = 0;
    std::uint64_t packets_sent = 0, bytes_sent = 0, send_calls = 0, send_errors = 0;
};

class UdpSocket : public PacketSink {
public:
    using Handler = std::function<void(const Peer& from, std::span<const std::uint8_t> packet)>;

    // Binds to the address; port 0 takes any free port. Throws std::system_error.
    // With a shared port, several sockets of this process bind to it, and a peer's packets all come to one.
    explicit UdpSocket(const Peer& address, bool shares_port = false);
    // Sends from the same address; for another thread. It must not receive.
    struct SendOnly {};
    UdpSocket(const UdpSocket& socket, SendOnly);
    ~UdpSocket() override;
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    // The address with the port it has.
    Peer address() const;

    // Waits up to wait_ms for packets, or until a signal. Hands out those that are there and then
    // sends what was gathered for them.
    void receive(const Handler& handler);
    static constexpr unsigned wait_ms = 200;

    // Gathers packets; a batch that is full leaves at once.
    void send(const Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override;
    std::span<std::uint8_t> data_buffer() override;
    void flush() override;

    const SocketCounters& counters() const { return counters_; }

private:
    // Packets for one peer, all of the first one's size but for a shorter last one.
    struct Run {
        sockaddr_in to;
        std::uint16_t packet_bytes;
        unsigned packets;
        unsigned bytes;
        std::size_t first_packet;
        bool closed;
    };

    bool joins(const Run& run, const sockaddr_in& to, std::size_t packet_bytes) const;
    void send_singly(const Run& run);
    void count_sent(const Run& run);

    struct ReceiveBatch;

    int socket_;
    SocketCounters counters_;
    std::unique_ptr<ReceiveBatch> received_;

    std::vector<Run> runs_;
    std::vector<std::array<iovec, 2>> packets_;  // header and data
    std::vector<std::array<std::uint8_t, formats::header_bytes>> headers_;
    std::vector<std::array<std::uint8_t, formats::packet_bytes_max>> buffers_;
    std::size_t buffer_ = 0;        // handed out last
    std::size_t buffers_used_ = 0;  // that packets not yet sent may lie in
};

}  // namespace server
