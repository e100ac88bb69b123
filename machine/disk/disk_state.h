// SPDX-License-Identifier: MIT
// What a local disk and its device in a machine share. Threads of a machine that is off may still hold it.
#pragma once

#include <utility>

#include "machine/disk/local_disk.h"

namespace machine {

struct DiskState {
    DiskState(std::unique_ptr<DiskMedium> disk_medium, const LocalDiskOptions& disk_options);

    // Both bounds included.
    std::int64_t draw(std::int64_t from, std::int64_t to);
    bool chance(double probability);
    bool bad(std::uint64_t sector, std::uint64_t count) const;

    const LocalDiskOptions options;
    const std::unique_ptr<DiskMedium> medium;
    std::atomic<bool> attached = false;

    std::atomic<std::uint64_t> reads = 0, writes = 0, bytes_read = 0, bytes_written = 0, read_errors = 0,
                               write_errors = 0;

    mutable std::mutex lock;  // a leaf; for what follows
    Random random;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> bad_ranges;  // first sector, end
};

}  // namespace machine
