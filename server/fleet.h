// SPDX-License-Identifier: MIT
// A server of many workstations without I/O of its own on the network: who gets which disks, what they write
// to, and which packets count. Receiving threads call receive(); boots run on a strand; an administrator's
// commands come from other threads.
//
// Locks: lock_ guards everything but the routes, which routes_lock_ guards; lock_ is taken first. No lock is
// held while a disk's packets are worked on.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "server/boot_service.h"
#include "server/disk_lane.h"
#include "server/fleet_config.h"
#include "server/image_shelf.h"

namespace server {

// Packets that no disk got.
struct FleetDrops {
    std::atomic<std::uint64_t> strangers{0};      // from outside of the networks that are allowed
    std::atomic<std::uint64_t> other_address{0};  // not from where the workstation booted
    std::atomic<std::uint64_t> unknown_disk{0};   // of no boot, or of an earlier one
    std::atomic<std::uint64_t> too_many{0};       // a workstation sends more than its disk takes
    std::atomic<std::uint64_t> short_packet{0};
};

class Fleet {
public:
    using Clock = DiskLane::Clock;

    // `self` is the address that workstations are told. Throws std::runtime_error for a state folder that
    // cannot be used. Workstations that ran when the server ended are served again.
    Fleet(const FleetConfig& config, const std::string& config_path, const Peer& self, WorkPool& pool,
          ImageShelf::Open open, Clock clock);
    ~Fleet();

    // Any thread.
    void receive(const Peer& from, std::span<const std::uint8_t> packet);

    // About every second, by one thread: flushes that are due, disks that could not be opened.
    void tick();
    // Tells every workstation to give up soon what is under way.
    void limit_retries();
    // Returns the disks that failed to, in words; empty: none. Waits for all others at most so long.
    std::string flush_all(unsigned wait_ms);

    // An administrator's command, as the control socket brings it: {"command": ..., ...}. The answer has
    // "error" when it failed. Any thread; may take as long as storage does.
    nlohmann::json command(const nlohmann::json& command);
    // All that there is to see.
    nlohmann::json status() const;

    const FleetDrops& drops() const { return drops_; }

private:
    struct Workstation {
        std::string name;
        HardwareAddress hardware{};
        std::string group;  // of one that no configuration names
        bool in_config = false;
        bool approved = true;  // false: waits for the administrator
        std::uint16_t number = 0;
        std::uint8_t generation = 0;
        std::uint32_t cookie = 0;  // of its last boot request
        bool booted = false;
        std::array<std::uint8_t, 4> ip{};
        std::set<unsigned> fresh;        // LUNs whose overlays are thrown away at the next boot
        std::vector<FleetDisk> disks;    // as of its last boot
        std::vector<unsigned> versions;  // of their images
        std::vector<std::shared_ptr<DiskLane>> lanes;
        std::shared_ptr<Allowance> allowance;
        std::string trouble;  // why its disks are not open
    };

    // All under lock_.
    BootDecision decide_boot(const formats::BootRequest& request, const Peer& from);
    Workstation* find(const HardwareAddress& hardware);
    Workstation* find(const std::string& name);
    Workstation& add(const std::string& name, const HardwareAddress& hardware);
    const std::vector<FleetDisk>* disks_of(const Workstation& workstation) const;
    unsigned limit_of(const Workstation& workstation) const;  // MB/s; 0: none
    void begin(Workstation& workstation, bool new_boot);
    bool end(Workstation& workstation, unsigned wait_ms);
    std::shared_ptr<DiskLane> open_lane(Workstation& workstation, unsigned lun, bool new_boot);
    std::string overlay_path(const Workstation& workstation, unsigned lun) const;
    formats::Boot_Param block_of(const Workstation& workstation) const;
    void apply(const FleetConfig& config);
    void load();
    void save() const;
    std::vector<std::string> users_of(const std::string& image_version) const;
    bool runs(const Workstation& workstation) const;
    nlohmann::json status_of(const Workstation& workstation) const;
    Workstation& named(const nlohmann::json& command);
    std::string overlay_base(const Workstation& workstation, unsigned lun) const;
    nlohmann::json image_status(const std::string& name, const ImageShelf::Image& image) const;

    nlohmann::json add_workstation(const nlohmann::json& command);
    nlohmann::json remove(const nlohmann::json& command);
    nlohmann::json reset(const nlohmann::json& command);
    nlohmann::json commit(const nlohmann::json& command, bool becomes_current);
    nlohmann::json roll_back(const nlohmann::json& command);
    nlohmann::json reload();
    nlohmann::json boot_block(const nlohmann::json& command);

    std::shared_ptr<DiskLane> lane_of(std::uint64_t key) const;

    FleetConfig config_;
    const std::string config_path_;
    const Peer self_;
    WorkPool& pool_;
    const Clock clock_;

    mutable std::mutex lock_;
    ImageShelf shelf_;
    std::map<std::string, Workstation> workstations_;
    std::set<std::string> committing_;  // images of which a version is being made
    bool draining_ = false;
    std::uint32_t cookies_ = 0;  // of boots by command
    std::uint64_t boots_ = 0, refusals_ = 0;
    std::uint64_t next_open_ms_ = 0;

    mutable std::shared_mutex routes_lock_;
    std::unordered_map<std::uint64_t, std::shared_ptr<DiskLane>> routes_;
    std::vector<Network> allow_;

    FleetDrops drops_;
    PoolSink boot_sink_;
    Peer boot_from_{};
    BootService boot_service_;
    std::shared_ptr<Strand> boot_strand_;
};

}  // namespace server
