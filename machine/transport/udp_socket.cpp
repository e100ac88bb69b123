// SPDX-License-Identifier: MIT
#include "machine/transport/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace machine {
namespace {

constexpr int buffer_bytes = 16 << 20;

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// The forced form goes beyond the system's limit and needs the right to; the other is cut to it.
void enlarge(int socket, int forced_option, int option)
{
    if (setsockopt(socket, SOL_SOCKET, forced_option, &buffer_bytes, sizeof buffer_bytes) != 0)
        setsockopt(socket, SOL_SOCKET, option, &buffer_bytes, sizeof buffer_bytes);
}

}  // namespace

UdpSocket::UdpSocket(const std::string& local_address, std::chrono::milliseconds receive_timeout)
    : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (descriptor_ < 0)
        fail("UDP socket");
    try {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        if (inet_pton(AF_INET, local_address.c_str(), &address.sin_addr) != 1)
            throw std::system_error(EINVAL, std::generic_category(), "local address " + local_address);
        enlarge(descriptor_, SO_RCVBUFFORCE, SO_RCVBUF);
        enlarge(descriptor_, SO_SNDBUFFORCE, SO_SNDBUF);
        const auto timeout_us = std::chrono::microseconds(receive_timeout).count();
        timeval timeout{};
        timeout.tv_sec = static_cast<time_t>(timeout_us / 1'000'000);
        timeout.tv_usec = static_cast<suseconds_t>(timeout_us % 1'000'000);
        if (setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0)
            fail("receive time-out");
        if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            fail("UDP port at " + local_address);
    } catch (...) {
        close(descriptor_);
        throw;
    }
}

UdpSocket::~UdpSocket()
{
    close(descriptor_);
}

std::uint16_t UdpSocket::port() const
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

void UdpSocket::shut_down()
{
    // Reports that the socket has no peer, and still wakes whoever waits on it.
    shutdown(descriptor_, SHUT_RDWR);
}

}  // namespace machine
