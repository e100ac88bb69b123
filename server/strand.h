// SPDX-License-Identifier: MIT
// Work that waits for storage, off the threads that receive. A strand is a row of packets and tasks of which
// one runs at a time; a pool of threads takes strands in turn, each for some of what has gathered, so that a
// busy one cannot starve the others. A strand that hangs in its storage holds one thread, and the pool grows
// in its stead.
//
// Locks: a strand's, or the pool's, never both.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "server/protocol.h"

namespace server {

class Strand;

class WorkPool {
public:
    using MakeSink = std::function<std::unique_ptr<PacketSink>()>;
    using Clock = std::function<std::uint64_t()>;  // milliseconds

    // Each thread sends by a sink of its own. Without threads, run_all() does the work. The clock is of
    // strands that rest; none: the kernel's.
    WorkPool(unsigned threads, MakeSink make_sink, Clock clock = nullptr);
    ~WorkPool();

    // Ends the threads when nothing is left to do; those that hang are left alone.
    void finish(unsigned wait_ms);

    // Called every now and then: one thread more when nothing was taken up since the last call although work
    // waits.
    void grow_if_stuck();
    static constexpr unsigned threads_max = 1024;
    unsigned threads() const;

    void run_all();

    // The sink of the thread that this is called in. A thread that receives may have one of its own: then
    // strands that need not wait are worked on there. Null: none.
    static PacketSink& sink();
    static void set_sink(PacketSink* sink);

private:
    friend Strand;
    void enqueue(std::shared_ptr<Strand> strand);
    void enqueue_later(std::shared_ptr<Strand> strand, std::uint64_t rest_ms);
    void add_thread();  // under the lock

    struct Shared;
    std::shared_ptr<Shared> shared_;  // outlives the pool in threads that hang
    unsigned ready_before_ = 0;
    std::uint64_t taken_before_ = 0;
};

// Sends by the sink of the thread that is at work.
class PoolSink : public PacketSink {
public:
    void send(const Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override
    {
        WorkPool::sink().send(to, header, data);
    }
    std::span<std::uint8_t> data_buffer() override { return WorkPool::sink().data_buffer(); }
};

class Strand : public std::enable_shared_from_this<Strand> {
public:
    struct Item {
        Peer from;
        std::span<const std::uint8_t> packet;
    };
    // All but the first may be null.
    struct Handlers {
        std::function<void(const Peer& from, std::span<const std::uint8_t> packet)> packet;
        std::function<void(std::span<const Item>)> begin_of_turn;
        // A whole turn of one packet, in the thread that brings it. Nothing: it would have to wait, and
        // nothing was done. Otherwise as end_of_turn.
        std::function<std::optional<std::uint64_t>(const Peer& from, std::span<const std::uint8_t> packet)>
            now;
        std::function<std::uint64_t()> end_of_turn;  // returns how long the strand rests, in milliseconds
    };
    static constexpr std::size_t turn_packets_max = 64;
    static constexpr std::size_t waiting_bytes_max = 1 << 20;

    // The handlers, and what they hold, go when the strand is closed and at rest.
    Strand(WorkPool& pool, Handlers handlers) : pool_(pool), handlers_(std::move(handlers)) {}

    // From any thread. False: too much waits already, or the strand is closed.
    bool add_packet(const Peer& from, std::span<const std::uint8_t> packet);
    bool post(std::function<void()> task);

    // Nothing is taken any more; what waits is still done. True: the strand is at rest.
    bool close(unsigned wait_ms);

private:
    friend WorkPool;
    void run();
    void end_turn(std::uint64_t rest_ms, bool done);
    void append_packet(const Peer& from, std::span<const std::uint8_t> packet);

    WorkPool& pool_;
    Handlers handlers_;
    std::mutex lock_;
    std::condition_variable rests_;
    std::vector<std::uint8_t> packets_, packets_in_turn_;  // each a peer, a size and the bytes
    std::size_t turn_at_ = 0;                              // in packets_in_turn_: what has been worked on
    std::vector<Item> items_;                              // of the turn
    std::vector<std::function<void()>> tasks_, tasks_in_turn_;
    bool queued_ = false;  // waits for a thread, or has one
    bool closed_ = false;
};

}  // namespace server
