// SPDX-License-Identifier: MIT
#include "server/udp_socket.h"

#include <fcntl.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "formats/socket_address.h"

namespace server {

namespace {

constexpr unsigned receive_messages = 16;
constexpr unsigned receive_buffer_bytes = 65536;  // a joined run is no longer than a datagram may be
constexpr unsigned runs_max = 64;
constexpr unsigned run_packets_max = 64;   // what the kernel cuts up at most
constexpr unsigned run_bytes_max = 65000;  // below the longest datagram
constexpr unsigned packets_max = 512;
constexpr unsigned buffers_max = 32;
constexpr int socket_buffer_bytes = 16 << 20;

template <typename Value>
bool set_option(int socket, int level, int option, Value value)
{
    return setsockopt(socket, level, option, &value, sizeof value) == 0;
}

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

struct alignas(cmsghdr) ControlBuffer {
    std::uint8_t bytes[CMSG_SPACE(sizeof(int))];
};

// Size of the packets that the kernel joined into this message; 0 when it is one packet.
std::size_t joined_packet_bytes(msghdr& message)
{
    for (cmsghdr* control = CMSG_FIRSTHDR(&message); control; control = CMSG_NXTHDR(&message, control))
        if (control->cmsg_level == SOL_UDP && control->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(control), sizeof size);
            return static_cast<std::size_t>(std::max(size, 0));
        }
    return 0;
}

// Tells the kernel into packets of which size it shall cut the message.
void set_segment_size(msghdr& message, ControlBuffer& buffer, std::uint16_t packet_bytes)
{
    message.msg_control = buffer.bytes;
    message.msg_controllen = CMSG_SPACE(sizeof packet_bytes);
    cmsghdr* control = CMSG_FIRSTHDR(&message);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof packet_bytes);
    std::memcpy(CMSG_DATA(control), &packet_bytes, sizeof packet_bytes);
}

}  // namespace

struct UdpSocket::ReceiveBatch {
    std::array<mmsghdr, receive_messages> messages;
    std::array<iovec, receive_messages> iovecs;
    std::array<sockaddr_in, receive_messages> peers;
    std::array<ControlBuffer, receive_messages> controls;
    std::array<std::array<std::uint8_t, receive_buffer_bytes>, receive_messages> data;

    void prepare();
};

void UdpSocket::ReceiveBatch::prepare()
{
    for (unsigned i = 0; i < receive_messages; ++i) {
        iovecs[i] = {data[i].data(), data[i].size()};
        msghdr& message = messages[i].msg_hdr;
        message = {};
        message.msg_name = &peers[i];
        message.msg_namelen = sizeof peers[i];
        message.msg_iov = &iovecs[i];
        message.msg_iovlen = 1;
        message.msg_control = controls[i].bytes;
        message.msg_controllen = sizeof controls[i].bytes;
    }
}

UdpSocket::UdpSocket(const UdpSocket& socket, SendOnly)
    : socket_(fcntl(socket.socket_, F_DUPFD_CLOEXEC, 0)), buffers_(buffers_max)
{
    runs_.reserve(runs_max);
    packets_.reserve(packets_max);
    headers_.reserve(packets_max);
    if (socket_ < 0)
        fail("socket");
}

UdpSocket::UdpSocket(const Peer& address, bool shares_port)
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      received_(std::make_unique_for_overwrite<ReceiveBatch>()), buffers_(buffers_max)
{
    runs_.reserve(runs_max);
    packets_.reserve(packets_max);
    headers_.reserve(packets_max);
    if (socket_ < 0)
        fail("socket");
    const sockaddr_in to_bind = formats::socket_address(address);
    const timeval wait{.tv_sec = 0, .tv_usec = wait_ms * 1000};
    if (shares_port)
        set_option(socket_, SOL_SOCKET, SO_REUSEPORT, 1);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&to_bind), sizeof to_bind) != 0 ||
        !set_option(socket_, SOL_SOCKET, SO_RCVTIMEO, wait)) {
        const int error = errno;
        close(socket_);
        errno = error;
        fail("the listen address");
    }
    // Larger buffers than the system's limit need a privilege; joined runs need a recent kernel. Both
    // only make the server faster.
    if (!set_option(socket_, SOL_SOCKET, SO_RCVBUFFORCE, socket_buffer_bytes))
        set_option(socket_, SOL_SOCKET, SO_RCVBUF, socket_buffer_bytes);
    if (!set_option(socket_, SOL_SOCKET, SO_SNDBUFFORCE, socket_buffer_bytes))
        set_option(socket_, SOL_SOCKET, SO_SNDBUF, socket_buffer_bytes);
    set_option(socket_, SOL_UDP, UDP_GRO, 1);
}

UdpSocket::~UdpSocket()
{
    close(socket_);
}

Peer UdpSocket::address() const
{
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    if (getsockname(socket_, reinterpret_cast<sockaddr*>(&bound), &size) != 0)
        fail("getsockname");
    return formats::record_of(bound);
}

void UdpSocket::receive(const Handler& handler)
{
    received_->prepare();
    const int count =
        recvmmsg(socket_, received_->messages.data(), receive_messages, MSG_WAITFORONE, nullptr);
    if (count < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == ENOMEM || errno == ENOBUFS)
            return;
        fail("receive");
    }
    ++counters_.receive_calls;
    for (unsigned i = 0; i < static_cast<unsigned>(count); ++i) {
        mmsghdr& message = received_->messages[i];
        std::span<const std::uint8_t> bytes = std::span(received_->data[i]).first(message.msg_len);
        counters_.bytes_received += bytes.size();
        const Peer peer = formats::record_of(received_->peers[i]);
        const std::size_t joined = joined_packet_bytes(message.msg_hdr);
        const std::size_t packet_bytes = joined != 0 ? joined : std::max<std::size_t>(bytes.size(), 1);
        do {
            const auto packet = bytes.first(std::min(packet_bytes, bytes.size()));
            bytes = bytes.subspan(packet.size());
            ++counters_.packets_received;
            handler(peer, packet);
        } while (!bytes.empty());
    }
    flush();
}

std::span<std::uint8_t> UdpSocket::data_buffer()
{
    if (buffers_used_ == buffers_.size())
        flush();
    buffer_ = (buffer_ + 1) % buffers_.size();
    ++buffers_used_;
    return buffers_[buffer_];
}

bool UdpSocket::joins(const Run& run, const sockaddr_in& to, std::size_t packet_bytes) const
{
    return !run.closed && run.to.sin_addr.s_addr == to.sin_addr.s_addr && run.to.sin_port == to.sin_port &&
           packet_bytes <= run.packet_bytes && run.packets < run_packets_max &&
           run.bytes + packet_bytes <= run_bytes_max;
}

void UdpSocket::send(const Peer& to, std::span<const std::uint8_t> header, std::span<const std::uint8_t> data)
{
    if (packets_.size() == packets_max)
        flush();
    const sockaddr_in address = formats::socket_address(to);
    const auto bytes = static_cast<std::uint16_t>(header.size() + data.size());
    if (runs_.empty() || !joins(runs_.back(), address, bytes)) {
        if (runs_.size() == runs_max)
            flush();
        runs_.push_back({address, bytes, 0, 0, packets_.size(), false});
    }
    Run& run = runs_.back();
    run.closed = bytes < run.packet_bytes;
    run.bytes += bytes;
    ++run.packets;
    auto& kept = headers_.emplace_back();
    std::ranges::copy(header, kept.begin());
    packets_.push_back(
        {iovec{kept.data(), header.size()}, iovec{const_cast<std::uint8_t*>(data.data()), data.size()}});
}

void UdpSocket::flush()
{
    std::array<mmsghdr, runs_max> messages;
    std::array<ControlBuffer, runs_max> controls;
    for (std::size_t i = 0; i < runs_.size(); ++i) {
        Run& run = runs_[i];
        msghdr& message = messages[i].msg_hdr;
        message = {};
        message.msg_name = &run.to;
        message.msg_namelen = sizeof run.to;
        message.msg_iov = packets_[run.first_packet].data();
        message.msg_iovlen = std::size_t{2} * run.packets;
        if (run.packets > 1)
            set_segment_size(message, controls[i], run.packet_bytes);
    }
    for (std::size_t done = 0; done < runs_.size();) {
        const int sent =
            sendmmsg(socket_, &messages[done], static_cast<unsigned>(runs_.size() - done), MSG_NOSIGNAL);
        if (sent > 0) {
            ++counters_.send_calls;
            for (int i = 0; i < sent; ++i)
                count_sent(runs_[done++]);
        } else if (errno != EINTR) {
            // The path to this peer may not take runs (its packets are smaller than ours): the
            // packets go one by one, and what cannot be sent is lost like any other packet.
            send_singly(runs_[done++]);
        }
    }
    runs_.clear();
    packets_.clear();
    headers_.clear();
    buffers_used_ = 1;  // the rest of an answer may follow from the last one
}

void UdpSocket::send_singly(const Run& run)
{
    sockaddr_in to = run.to;
    for (auto& packet : std::span(packets_).subspan(run.first_packet, run.packets)) {
        msghdr message{};
        message.msg_name = &to;
        message.msg_namelen = sizeof to;
        message.msg_iov = packet.data();
        message.msg_iovlen = packet.size();
        ssize_t sent;
        do {
            sent = sendmsg(socket_, &message, MSG_NOSIGNAL);
            ++counters_.send_calls;
        } while (sent < 0 && errno == EINTR);
        if (sent < 0) {
            ++counters_.send_errors;
        } else {
            ++counters_.packets_sent;
            counters_.bytes_sent += static_cast<std::uint64_t>(sent);
        }
    }
}

void UdpSocket::count_sent(const Run& run)
{
    counters_.packets_sent += run.packets;
    counters_.bytes_sent += run.bytes;
}

}  // namespace server
