// SPDX-License-Identifier: MIT
// The receiving half of the UDP link. Takes many datagrams in one system call, each buffer possibly
// a whole series of packets that the kernel has joined (receive offload), and hands the packets out
// one at a time where they lie in the buffer. A buffer is used again when all its packets are back.
//
// next() and wait() belong to one thread; release() and stop() to any.
#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "formats/wire.h"
#include "machine/transport/link.h"
#include "machine/transport/udp_socket.h"

namespace machine {

class Scheduler;

class UdpReceiver {
public:
    UdpReceiver(Scheduler& scheduler, std::shared_ptr<const UdpSocket> socket);
    ~UdpReceiver();

    // The next packet that has arrived, with room for formats::poll_buffer_bytes; returns its length,
    // or 0 when there is none.
    std::uint32_t next(void** packet);
    // Where the packet that next() gave last came from.
    const sockaddr_in& sender() const { return sender_; }
    // Waits for packets, where it waits in the host no longer than the socket's receive time-out. Returns
    // false after stop().
    bool wait();
    void release(void* packet);
    void stop() { stopped_ = true; }

    void add_counters(LinkCounters& counters) const;

private:
    static constexpr unsigned buffer_bytes = 65536;  // any datagram, and any series that is joined
    static constexpr unsigned buffer_count = 32;
    static constexpr unsigned batch_max = 8;
    // Packets shorter than this would not leave room for a poll's reply before the next packet of
    // their series begins: they are handed out as copies.
    static constexpr unsigned room_bytes = formats::poll_buffer_bytes;
    static constexpr unsigned copy_count = 512;
    static constexpr unsigned packets_in_place_max = buffer_bytes / room_bytes + 1;

    struct Buffer {
        std::uint8_t* bytes = nullptr;
        std::uint32_t packet_bytes = 0;
        std::atomic<unsigned> holders = 0;  // packets that are out, and the batch that it stands in
        std::array<std::atomic<bool>, packets_in_place_max> out{};
    };
    struct Copy {
        std::atomic<bool> out = false;
        std::uint8_t bytes[room_bytes];
    };
    // A buffer with packets that are not yet handed out.
    struct Arrived {
        Buffer* buffer;
        std::uint32_t bytes;
        std::uint32_t offset;
        sockaddr_in from;
    };

    Buffer* take_buffer();
    Copy* take_copy();
    void drop_holder(Buffer& buffer);
    void* hand_out(Arrived& arrived, std::uint32_t bytes);
    unsigned prepare_batch();
    void accept_batch(unsigned count, unsigned prepared);

    Scheduler& scheduler_;
    const std::shared_ptr<const UdpSocket> socket_;
    std::atomic<bool> stopped_ = false;
    std::uint8_t* arena_ = nullptr;
    std::array<Buffer, buffer_count> buffers_;
    std::array<Copy, copy_count> copies_;

    struct Batch;
    std::unique_ptr<Batch> batch_;
    sockaddr_in sender_{};
    std::array<Arrived, batch_max> arrived_;
    bool drained_ = false;  // nothing was left when packets were taken last
    unsigned arrived_count_ = 0, arrived_next_ = 0;

    std::mutex free_lock_;  // guards the two free lists
    std::vector<Buffer*> free_buffers_;
    std::vector<Copy*> free_copies_;

    std::atomic<std::uint64_t> packets_ = 0, bytes_ = 0, calls_ = 0;
};

}  // namespace machine
