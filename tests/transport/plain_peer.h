// SPDX-License-Identifier: MIT
// The other end of a UDP link in a test: a plain socket, without receive offload.
#pragma once

#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include "formats/socket_address.h"

using Packet = std::vector<std::uint8_t>;

class PlainPeer {
public:
    PlainPeer() : socket_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address = formats::socket_address({{127, 0, 0, 1}, {}, {}, {}});
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        record = formats::record_of(address);
        const timeval patience{5, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~PlainPeer() { close(socket_); }
    PlainPeer(const PlainPeer&) = delete;
    PlainPeer& operator=(const PlainPeer&) = delete;

    formats::ServerRecord record{};  // how to reach this peer

    // The next packet; empty when none comes for seconds, or at once when there is no patience.
    Packet receive(bool patient = true)
    {
        Packet packet(65536);
        socklen_t length = sizeof partner_;
        const ssize_t bytes = recvfrom(socket_, packet.data(), packet.size(), patient ? 0 : MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&partner_), &length);
        packet.resize(bytes > 0 ? static_cast<std::size_t>(bytes) : 0);
        return packet;
    }

    // To where the last packet came from; joined: as a series of packets of that size.
    void answer(std::span<const std::uint8_t> bytes, std::uint16_t joined = 0)
    {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof joined)] = {};
        iovec payload{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
        msghdr message{};
        message.msg_name = &partner_;
        message.msg_namelen = sizeof partner_;
        message.msg_iov = &payload;
        message.msg_iovlen = 1;
        if (joined) {
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr* const option = CMSG_FIRSTHDR(&message);
            option->cmsg_level = SOL_UDP;
            option->cmsg_type = UDP_SEGMENT;
            option->cmsg_len = CMSG_LEN(sizeof joined);
            std::memcpy(CMSG_DATA(option), &joined, sizeof joined);
        }
        EXPECT_EQ(sendmsg(socket_, &message, 0), static_cast<ssize_t>(bytes.size()));
    }

private:
    const int socket_;
    sockaddr_in partner_{};
};

// Bytes that name their packet and their place in it.
inline Packet numbered_packet(unsigned number, std::size_t bytes)
{
    Packet packet(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        packet[i] = static_cast<std::uint8_t>(number * 31 + i * 7 + i / 256);
    return packet;
}
