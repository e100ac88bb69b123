// SPDX-License-Identifier: MIT
// One disk of one workstation: its store, and a protocol of its own that runs on a strand, so that a store
// that stalls or fails hurts this disk alone.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "server/allowance.h"
#include "server/fleet_config.h"
#include "server/fleet_stores.h"
#include "server/strand.h"

namespace server {

struct LaneSetup {
    std::string workstation;
    unsigned lun;
    FleetDisk disk;
    std::string image;  // NAME@VERSION
    std::array<std::uint8_t, 4> id, parm;
    std::array<std::uint8_t, 4> ip;  // the only one that may use it
    std::shared_ptr<BlockStore> store;
    std::shared_ptr<BlockStore> area;           // null: none
    std::shared_ptr<DiskOwner> owner;           // of an exclusive disk
    std::shared_ptr<Allowance> allowance;       // of the workstation; null: no limit
    std::function<std::uint64_t()> held_bytes;  // by the overlay; null: none
};

struct LaneStatus {
    DiskCounters counters;
    DroppedCounters dropped;
    std::uint64_t last_seen_ms = 0;  // 0: never
    std::uint64_t held_bytes = 0;
    std::string last_error;  // of the store
    bool shut_down = false;  // the last that was heard of the workstation
};

class DiskLane {
public:
    using Clock = std::function<std::uint64_t()>;  // milliseconds

    DiskLane(WorkPool& pool, LaneSetup setup, Clock clock);
    ~DiskLane() { close(0); }

    // Any thread, all of these.
    static std::uint64_t key_of(const std::uint8_t* id, const std::uint8_t* parm);
    std::uint64_t key() const { return key_of(setup_.id.data(), setup_.parm.data()); }
    bool is_for(const Peer& from) const { return std::ranges::equal(from.Ip, setup_.ip); }
    bool receive(const Peer& from, std::span<const std::uint8_t> packet)
    {
        return strand_->add_packet(from, packet);
    }
    const LaneSetup& setup() const { return setup_; }  // without the stores
    std::uint64_t size_bytes() const { return size_bytes_; }
    LaneStatus status() const;

    // Brings down what was written, between two turns of packets, then calls `ended` with an errno or 0.
    void flush(std::function<void(int error)> ended);
    void flush_if_due(std::uint64_t now_ms);
    // Between two turns of packets, with the store.
    bool with_store(std::function<void(BlockStore&)> work);
    void limit_retries();

    // True: the store is closed. Otherwise that happens as soon as it answers.
    bool close(unsigned wait_ms);

private:
    struct Parts;
    LaneSetup setup_;
    std::uint64_t size_bytes_;
    std::shared_ptr<Strand> strand_;
    std::weak_ptr<Parts> parts_;  // lives in the strand
    std::shared_ptr<std::mutex> status_lock_ = std::make_shared<std::mutex>();
    std::shared_ptr<LaneStatus> status_ = std::make_shared<LaneStatus>();
    std::uint64_t next_flush_ms_ = 0;
};

}  // namespace server
