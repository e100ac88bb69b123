// SPDX-License-Identifier: MIT
// A UDP socket bound to an ephemeral port of one local address, with the largest buffers the system
// grants: a burst of answers waits there while the receiving thread is busy.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace machine {

class UdpSocket {
public:
    // local_address: IPv4 in dotted form. A wait for packets ends empty-handed after receive_timeout.
    // Throws std::system_error.
    UdpSocket(const std::string& local_address, std::chrono::milliseconds receive_timeout);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int descriptor() const { return descriptor_; }
    std::uint16_t port() const;
    // Ends a wait for packets that is going on, and all later ones.
    void shut_down();

private:
    int descriptor_;
};

}  // namespace machine
