// SPDX-License-Identifier: MIT
// The machine's local hard disk. It belongs to whoever tests or runs the machine and outlives it: after a
// power cut or a reset the next machine starts on what is left.
//
// Machine::add_local_disk puts it into a machine, one at a time. What is public here may be called by any
// thread at any time, unless it says otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "machine/disk/disk_medium.h"

namespace machine {

struct LocalDiskOptions {
    std::uint64_t seed = 1;
    // On the simulated scheduler a request is pending for a time drawn from this range, and what it finds
    // and leaves is that of its end. Both 0: it is complete at once.
    Ticks latency_min = 0, latency_max = 0;
    // On the real scheduler so many threads carry out the requests; 0: the requester's own does, at once.
    unsigned workers = 0;
    // Simulated scheduler only: a write that is complete stays volatile for a time drawn from this range.
    // Both 0: complete means durable.
    Ticks volatile_min = 0, volatile_max = 0;
};

struct LocalDiskCounters {
    std::uint64_t reads = 0, writes = 0;  // requests, failed ones included
    std::uint64_t bytes_read = 0, bytes_written = 0;
    std::uint64_t read_errors = 0, write_errors = 0;
};

struct DiskState;  // machine/disk/disk_state.h

class LocalDisk {
public:
    // In memory, all zeros.
    explicit LocalDisk(std::uint64_t sectors, const LocalDiskOptions& options = {});
    // A raw image file. Throws std::system_error.
    explicit LocalDisk(const std::string& path, const LocalDiskOptions& options = {});

    std::uint64_t sectors() const;
    LocalDiskCounters counters() const;

    // The contents as a request would find or leave them, past all faults. Written bytes are durable.
    // Throw std::out_of_range for anything but whole sectors of the disk, std::runtime_error when the host
    // fails.
    std::vector<std::uint8_t> read(std::uint64_t sector, std::uint32_t count) const;
    void write(std::uint64_t sector, std::span<const std::uint8_t> bytes);

    // From now on, in every machine, requests that touch these sectors fail, or no longer do.
    void set_bad(std::uint64_t first_sector, std::uint64_t count, bool bad = true);

    // With the machine that had the disk gone: what was volatile or under way is kept, lost or torn.
    // Without a cut, a machine that goes was merely reset: all that was written is on the disk.
    void power_cut(Random& random);

private:
    friend class DiskDevice;
    std::shared_ptr<DiskState> state_;
};

}  // namespace machine
