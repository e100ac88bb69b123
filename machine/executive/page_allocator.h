// SPDX-License-Identifier: MIT
// Which pages of the managed memory are free. Kept as runs of neighbouring pages, so that memory of
// any size costs a few entries. Pure bookkeeping without a lock: PhysicalMemory calls it under its own.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "machine/scheduler/random.h"

namespace machine {

constexpr std::uint32_t page_bytes = 4096;

struct MemoryRange {
    std::uint64_t base;    // physical address in bytes
    std::uint64_t length;  // bytes
};

// Neighbouring pages, by page number.
struct PageRun {
    std::uint64_t first;
    std::uint64_t count;

    std::uint64_t end() const { return first + count; }
    bool operator==(const PageRun&) const = default;
};

class PageAllocator {
public:
    // The whole pages of these ranges above the first megabyte, which is the firmware's. A piece is at
    // most piece_pages_max pages and comes from either end of what is free, as the seed has it; 0: from
    // the lower end and as large as it comes.
    PageAllocator(const std::vector<MemoryRange>& ranges, std::uint32_t piece_pages_max, std::uint64_t seed);

    // Pages numbered low to high; fewer than asked when no more are free.
    std::vector<PageRun> take(std::uint64_t low, std::uint64_t high, std::uint64_t count);
    // Gives back what take() gave.
    void give(const PageRun& run);

    std::uint64_t in_use() const { return in_use_; }

private:
    std::optional<PageRun> lowest(std::uint64_t low, std::uint64_t high, std::uint64_t count) const;
    std::optional<PageRun> highest(std::uint64_t low, std::uint64_t high, std::uint64_t count) const;
    void insert(PageRun run);
    void remove(const PageRun& run);

    std::map<std::uint64_t, std::uint64_t> free_;  // first page and count; neighbours are merged
    std::uint64_t in_use_ = 0;
    const std::uint32_t piece_pages_max_;
    Random random_;
};

}  // namespace machine
