// SPDX-License-Identifier: MIT
#include "machine/transport/udp_receiver.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "machine/scheduler/scheduler.h"
#include "machine/scheduler/violation.h"

namespace machine {

// What recvmmsg fills.
struct UdpReceiver::Batch {
    struct alignas(cmsghdr) Control {
        char bytes[CMSG_SPACE(sizeof(int))];
    };
    std::array<Buffer*, batch_max> buffers;
    std::array<mmsghdr, batch_max> messages;
    std::array<iovec, batch_max> payloads;
    std::array<Control, batch_max> controls;
    std::array<sockaddr_in, batch_max> senders;

    // Length of the packets that the kernel has joined into this datagram; 0: it is a single one.
    unsigned joined_packet_bytes(unsigned i)
    {
        msghdr& message = messages[i].msg_hdr;
        for (cmsghdr* option = CMSG_FIRSTHDR(&message); option; option = CMSG_NXTHDR(&message, option)) {
            if (option->cmsg_level != SOL_UDP || option->cmsg_type != UDP_GRO)
                continue;
            int packet_bytes;
            std::memcpy(&packet_bytes, CMSG_DATA(option), sizeof packet_bytes);
            return static_cast<unsigned>(packet_bytes);
        }
        return 0;
    }
};

UdpReceiver::UdpReceiver(Scheduler& scheduler, std::shared_ptr<const UdpSocket> socket)
    : scheduler_(scheduler), socket_(std::move(socket)), batch_(std::make_unique<Batch>())
{
    // Without receive offload packets simply come one to a buffer.
    const int on = 1;
    setsockopt(socket_->descriptor(), SOL_UDP, UDP_GRO, &on, sizeof on);

    void* const arena = mmap(nullptr, buffer_count * buffer_bytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (arena == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "receive buffers");
    arena_ = static_cast<std::uint8_t*>(arena);
    for (unsigned i = buffer_count; i-- > 0;) {
        buffers_[i].bytes = arena_ + i * buffer_bytes;
        free_buffers_.push_back(&buffers_[i]);
    }
    for (Copy& copy : copies_)
        free_copies_.push_back(&copy);
}

UdpReceiver::~UdpReceiver()
{
    munmap(arena_, buffer_count * buffer_bytes);
}

UdpReceiver::Buffer* UdpReceiver::take_buffer()
{
    const std::lock_guard lock(free_lock_);
    if (free_buffers_.empty())
        return nullptr;
    Buffer* const buffer = free_buffers_.back();
    free_buffers_.pop_back();
    return buffer;
}

UdpReceiver::Copy* UdpReceiver::take_copy()
{
    const std::lock_guard lock(free_lock_);
    if (free_copies_.empty())
        return nullptr;
    Copy* const copy = free_copies_.back();
    free_copies_.pop_back();
    return copy;
}

void UdpReceiver::drop_holder(Buffer& buffer)
{
    if (buffer.holders.fetch_sub(1) != 1)
        return;
    const std::lock_guard lock(free_lock_);
    free_buffers_.push_back(&buffer);
}

std::uint32_t UdpReceiver::next(void** packet)
{
    if (arrived_next_ == arrived_count_)
        return 0;
    Arrived& arrived = arrived_[arrived_next_];
    const std::uint32_t bytes = std::min(arrived.buffer->packet_bytes, arrived.bytes - arrived.offset);
    *packet = hand_out(arrived, bytes);
    sender_ = arrived.from;
    arrived.offset += bytes;
    if (arrived.offset == arrived.bytes) {
        ++arrived_next_;
        drop_holder(*arrived.buffer);
    }
    return bytes;
}

void* UdpReceiver::hand_out(Arrived& arrived, std::uint32_t bytes)
{
    Buffer& buffer = *arrived.buffer;
    std::uint8_t* const place = buffer.bytes + arrived.offset;
    const bool single = buffer.packet_bytes == arrived.bytes;
    const bool room_in_place =
        (single || buffer.packet_bytes >= room_bytes) && arrived.offset + room_bytes <= buffer_bytes;
    if (room_in_place) {
        ++buffer.holders;
        buffer.out[arrived.offset / buffer.packet_bytes] = true;
        return place;
    }
    Copy* const copy = take_copy();
    if (!copy)
        violation("transport: " + std::to_string(copy_count) + " short packets are not released");
    copy->out = true;
    std::memcpy(copy->bytes, place, bytes);
    return copy->bytes;
}

bool UdpReceiver::wait()
{
    const unsigned prepared = prepare_batch();
    if (prepared == 0)
        violation("transport: the packets of " + std::to_string(buffer_count) + " buffers are not released");
    int flags = MSG_DONTWAIT;
    if (drained_ && !stopped_ && !scheduler_.wait_readable(socket_->descriptor()))
        flags = MSG_WAITFORONE;
    const int count =
        stopped_ ? 0 : recvmmsg(socket_->descriptor(), batch_->messages.data(), prepared, flags, nullptr);
    drained_ = count < static_cast<int>(prepared);
    calls_.fetch_add(1, std::memory_order_relaxed);
    accept_batch(count > 0 ? static_cast<unsigned>(count) : 0, prepared);
    return !stopped_;
}

unsigned UdpReceiver::prepare_batch()
{
    unsigned prepared = 0;
    for (; prepared < batch_max; ++prepared) {
        Buffer* const buffer = take_buffer();
        if (!buffer)
            break;
        batch_->buffers[prepared] = buffer;
        batch_->payloads[prepared] = {buffer->bytes, buffer_bytes};
        msghdr& message = batch_->messages[prepared].msg_hdr;
        message = {};
        message.msg_name = &batch_->senders[prepared];
        message.msg_namelen = sizeof batch_->senders[prepared];
        message.msg_iov = &batch_->payloads[prepared];
        message.msg_iovlen = 1;
        message.msg_control = batch_->controls[prepared].bytes;
        message.msg_controllen = sizeof batch_->controls[prepared].bytes;
    }
    return prepared;
}

// Keeps the datagrams that carry anything, and gives the other buffers back.
void UdpReceiver::accept_batch(unsigned count, unsigned prepared)
{
    arrived_count_ = arrived_next_ = 0;
    for (unsigned i = 0; i < prepared; ++i) {
        Buffer& buffer = *batch_->buffers[i];
        const mmsghdr& message = batch_->messages[i];
        buffer.holders = 1;
        if (i >= count || message.msg_len == 0 || message.msg_hdr.msg_flags & MSG_TRUNC) {
            drop_holder(buffer);
            continue;
        }
        const unsigned joined_bytes = batch_->joined_packet_bytes(i);
        buffer.packet_bytes = joined_bytes ? std::min(joined_bytes, message.msg_len) : message.msg_len;
        arrived_[arrived_count_++] = {&buffer, message.msg_len, 0, batch_->senders[i]};
        packets_.fetch_add((message.msg_len + buffer.packet_bytes - 1) / buffer.packet_bytes,
                           std::memory_order_relaxed);
        bytes_.fetch_add(message.msg_len, std::memory_order_relaxed);
    }
}

void UdpReceiver::release(void* packet)
{
    const auto address = reinterpret_cast<std::uintptr_t>(packet);
    const auto arena_offset = address - reinterpret_cast<std::uintptr_t>(arena_);
    if (arena_offset < buffer_count * buffer_bytes) {
        Buffer& buffer = buffers_[arena_offset / buffer_bytes];
        const std::size_t offset = arena_offset % buffer_bytes;
        const std::size_t index = buffer.packet_bytes ? offset / buffer.packet_bytes : 0;
        if (index < buffer.out.size() && index * buffer.packet_bytes == offset &&
            buffer.out[index].exchange(false))
            return drop_holder(buffer);
    }
    const auto copies_offset = address - reinterpret_cast<std::uintptr_t>(copies_.data());
    if (copies_offset < sizeof copies_ && copies_offset % sizeof(Copy) == offsetof(Copy, bytes)) {
        Copy& copy = copies_[copies_offset / sizeof(Copy)];
        if (copy.out.exchange(false)) {
            const std::lock_guard lock(free_lock_);
            free_copies_.push_back(&copy);
            return;
        }
    }
    violation("transport: a packet is released that is not handed out (released twice?)");
}

void UdpReceiver::add_counters(LinkCounters& counters) const
{
    counters.packets_received += packets_;
    counters.bytes_received += bytes_;
    counters.receive_calls += calls_;
}

}  // namespace machine
