// SPDX-License-Identifier: MIT
// The address space in which memory can be mapped: the system's free page table entries, of which a 32-bit
// kernel sets aside a number when it starts. What loaded before has broken them into runs, and a mapping
// takes neighbours of one run. Pure bookkeeping without a lock: PhysicalMemory calls it under its own.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

namespace machine {

class SystemPtes {
public:
    // total: free entries; 0: there is no limit. largest_run: neighbours among them; the rest lies about in
    // runs drawn from the seed. 0: one run.
    SystemPtes(std::uint32_t total, std::uint32_t largest_run, std::uint64_t seed);

    // The first of so many neighbours; none when no run has as many.
    std::optional<std::uint32_t> take(std::uint32_t count);
    void give(std::uint32_t first, std::uint32_t count);

    std::uint32_t free() const { return free_count_; }
    std::uint32_t largest_run() const;

private:
    const bool limited_;
    std::map<std::uint32_t, std::uint32_t> free_;  // first entry and count; neighbours are merged
    std::uint32_t free_count_ = 0;
};

}  // namespace machine
