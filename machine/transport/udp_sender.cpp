// SPDX-License-Identifier: MIT
#include "machine/transport/udp_sender.h"

#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "formats/socket_address.h"
#include "machine/executive/threads.h"
#include "machine/scheduler/kernel_scheduler.h"

namespace machine {
namespace {

constexpr unsigned run_packets_max = 64;  // what every kernel with segmentation offload accepts
constexpr unsigned run_bytes_max = 65507;

std::uint64_t next_id()
{
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

bool same_address(const sockaddr_in& a, const sockaddr_in& b)
{
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

// Sends, again after a signal and after an error that an earlier packet left on the socket; waits for room if
// need be.
template <typename Call>
auto persistently(Call call)
{
    int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
    auto result = call(flags);
    for (unsigned tries = 0; result < 0 && tries < 4; ++tries) {
        if (errno == EAGAIN) {
            wake_waiters();
            flags = MSG_NOSIGNAL;
        } else if (errno != EINTR && errno != ECONNREFUSED) {
            break;
        }
        result = call(flags);
    }
    return result;
}

}  // namespace

// Packets of one thread to one address: all of packet_bytes, but for the last, which may be shorter.
struct UdpSender::Run {
    std::uint64_t owner_id = 0;
    std::weak_ptr<UdpSender> owner;
    sockaddr_in to{};
    unsigned packets = 0;
    unsigned packet_bytes = 0;
    unsigned bytes = 0;
    bool closed = false;  // the last packet is a shorter one
    std::uint8_t payload[run_bytes_max];

    ~Run()
    {
        if (packets == 0)
            return;
        if (const auto sender = owner.lock())
            sender->transmit(*this);
    }

    bool continues_with(const sockaddr_in& address, std::size_t size) const
    {
        return packets < run_packets_max && !closed && size <= packet_bytes &&
               size <= run_bytes_max - bytes && same_address(address, to);
    }

    void append(std::span<const std::uint8_t> header, std::span<const std::uint8_t> data)
    {
        std::uint8_t* const end = payload + bytes;
        std::memcpy(end, header.data(), header.size());
        if (!data.empty())
            std::memcpy(end + header.size(), data.data(), data.size());
        const auto size = static_cast<unsigned>(header.size() + data.size());
        if (packets == 0)
            packet_bytes = size;
        closed = size < packet_bytes;
        bytes += size;
        ++packets;
    }
};

UdpSender::UdpSender(std::shared_ptr<const UdpSocket> socket) : socket_(std::move(socket)), id_(next_id())
{
    const int none = 0;
    segmentation_ = setsockopt(socket_->descriptor(), SOL_UDP, UDP_SEGMENT, &none, sizeof none) == 0;
}

std::unique_ptr<UdpSender::Run>& UdpSender::thread_run()
{
    thread_local std::unique_ptr<Run> run;
    return run;
}

UdpSender::Run& UdpSender::own_run()
{
    std::unique_ptr<Run>& run = thread_run();
    if (!run || run->owner_id != id_) {
        run = std::make_unique<Run>();
        run->owner_id = id_;
        run->owner = weak_from_this();
    }
    return *run;
}

void UdpSender::send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
                     std::span<const std::uint8_t> data)
{
    const std::size_t size = header.size() + data.size();
    if (!to.names_a_server() || size == 0 || size > run_bytes_max)
        return;
    const sockaddr_in address = formats::socket_address(to);
    Run& run = own_run();
    if (run.packets != 0 && !run.continues_with(address, size))
        transmit(run);
    if (run.packets == 0)
        run.to = address;
    run.append(header, data);
    if (data.empty() || run.packets == run_packets_max)
        transmit(run);
}

void UdpSender::flush()
{
    const std::unique_ptr<Run>& run = thread_run();
    if (run && run->owner_id == id_ && run->packets != 0)
        transmit(*run);
}

void UdpSender::transmit(Run& run)
{
    if (!stopped_) {
        packets_.fetch_add(run.packets, std::memory_order_relaxed);
        bytes_.fetch_add(run.bytes, std::memory_order_relaxed);
        if (run.packets == 1)
            transmit_single(run);
        else if (!segmentation_ || !transmit_segmented(run))
            transmit_one_by_one(run);
    }
    run.packets = 0;
    run.bytes = 0;
    run.closed = false;
}

void UdpSender::transmit_single(const Run& run)
{
    calls_.fetch_add(1, std::memory_order_relaxed);
    persistently([&](int flags) {
        return sendto(socket_->descriptor(), run.payload, run.bytes, flags,
                      reinterpret_cast<const sockaddr*>(&run.to), sizeof run.to);
    });
}

// Returns false when the packets must be sent one by one. What else goes wrong loses them.
bool UdpSender::transmit_segmented(const Run& run)
{
    const auto segment_bytes = static_cast<std::uint16_t>(run.packet_bytes);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof segment_bytes)] = {};
    iovec payload{const_cast<std::uint8_t*>(run.payload), run.bytes};
    msghdr message{};
    message.msg_name = const_cast<sockaddr_in*>(&run.to);
    message.msg_namelen = sizeof run.to;
    message.msg_iov = &payload;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const option = CMSG_FIRSTHDR(&message);
    option->cmsg_level = SOL_UDP;
    option->cmsg_type = UDP_SEGMENT;
    option->cmsg_len = CMSG_LEN(sizeof segment_bytes);
    std::memcpy(CMSG_DATA(option), &segment_bytes, sizeof segment_bytes);

    calls_.fetch_add(1, std::memory_order_relaxed);
    if (persistently([&](int flags) { return sendmsg(socket_->descriptor(), &message, flags); }) >= 0)
        return true;
    // EIO: the route's device cannot checksum segments. EINVAL, EMSGSIZE: these packets are too large
    // for its frames and need fragmentation.
    if (errno == EIO || errno == ENOPROTOOPT || errno == EOPNOTSUPP)
        segmentation_ = false;
    return errno != EIO && errno != ENOPROTOOPT && errno != EOPNOTSUPP && errno != EINVAL &&
           errno != EMSGSIZE;
}

void UdpSender::transmit_one_by_one(const Run& run)
{
    iovec payloads[run_packets_max];
    mmsghdr messages[run_packets_max];
    for (unsigned i = 0; i < run.packets; ++i) {
        const unsigned offset = i * run.packet_bytes;
        payloads[i] = {const_cast<std::uint8_t*>(run.payload) + offset,
                       std::min(run.packet_bytes, run.bytes - offset)};
        messages[i] = {};
        messages[i].msg_hdr.msg_name = const_cast<sockaddr_in*>(&run.to);
        messages[i].msg_hdr.msg_namelen = sizeof run.to;
        messages[i].msg_hdr.msg_iov = &payloads[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (unsigned done = 0; done < run.packets;) {
        calls_.fetch_add(1, std::memory_order_relaxed);
        const int sent = persistently([&](int flags) {
            return sendmmsg(socket_->descriptor(), messages + done, run.packets - done, flags);
        });
        done += sent > 0 ? static_cast<unsigned>(sent) : 1;  // a packet that cannot be sent is lost
    }
}

void UdpSender::add_counters(LinkCounters& counters) const
{
    counters.packets_sent += packets_;
    counters.bytes_sent += bytes_;
    counters.send_calls += calls_;
}

}  // namespace machine
