// SPDX-License-Identifier: MIT
// Clients that read and write the disks at random, each one request at a time, against the models.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "campaign/workstation.h"

namespace campaign {

// Says whether a request of this LUN may fail. Called when one does. since_ms: when the oldest of those began
// that wait now; write_waits: one of them is a write.
class Excuses {
public:
    virtual ~Excuses() = default;
    virtual bool may_fail(unsigned lun, bool write_waits, std::int64_t since_ms) = 0;
};

class Load {
public:
    Load(Workstation& station, Excuses& excuses);
    ~Load();

    // Clients go on until stop(), with pauses that bring the plan's operations into so much time.
    void start(std::int64_t length_ms);
    // So many operations each, without pauses.
    void start_operations(unsigned each);
    void stop() { stopping_ = true; }
    unsigned active() const { return active_; }
    // "LUN 1 write of LBA 5 for 30000 ms, ..."
    std::string waiting();

    // A disk without medium stays so until the next start.
    bool lost(unsigned lun) const { return disks_[lun].lost; }
    bool reachable(unsigned lun) const { return !disks_[lun].lost && !held_back(lun); }
    bool all_shown() const;
    std::uint64_t read_sectors(unsigned lun) const { return disks_[lun].read_sectors; }
    std::uint64_t written_sectors(unsigned lun) const { return disks_[lun].written_sectors; }

    // One request, waited for; false when it failed.
    bool read(unsigned lun, std::uint32_t lba, std::uint32_t count);
    // The whole disk, as long as it is there: the first LBA of a request that failed, if one did.
    std::optional<std::uint32_t> read_all(unsigned lun);

private:
    struct Client;
    struct Disk {
        bool lost = false;
        std::uint64_t read_sectors = 0, written_sectors = 0;
    };

    // The driver shows some disks only when the system disk was written in earnest.
    bool held_back(unsigned lun) const;
    void request_failed(Client& client);

    Workstation& station_;
    Excuses& excuses_;
    std::vector<Disk> disks_;
    std::vector<std::unique_ptr<Client>> clients_;
    unsigned active_ = 0;
    bool stopping_ = false;
    bool delay_over_ = false;
    std::int64_t pause_ms_ = 0;  // on average
};

}  // namespace campaign
