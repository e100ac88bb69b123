// SPDX-License-Identifier: MIT
// Physical memory as one sparse memory file. Conventional memory below 640 KB, the managed ranges and
// memory above 4 GB are offsets in it; a mapping is a real mmap of it. Any thread may call; misuse is a
// violation.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

#include "machine/executive/page_allocator.h"
#include "machine/executive/system_ptes.h"

namespace machine {

struct PhysicalMemoryLayout {
    std::vector<MemoryRange> managed;     // what the system manages
    std::uint64_t above_4g_bytes = 0;     // memory from 4 GB up that it does not manage
    std::vector<MemoryRange> unanswered;  // whole pages where nothing answers; see unanswered_memory.h
    bool garbage_above_4g = false;        // that memory holds garbage instead of zeros
    std::uint32_t system_ptes = 0;        // see SystemPtes
    std::uint32_t largest_pte_run = 0;
    std::uint32_t piece_pages_max = 0;  // see PageAllocator
    std::uint64_t seed = 1;
};

class PhysicalMemory {
public:
    explicit PhysicalMemory(PhysicalMemoryLayout layout);
    ~PhysicalMemory();
    PhysicalMemory(const PhysicalMemory&) = delete;
    PhysicalMemory& operator=(const PhysicalMemory&) = delete;

    const std::vector<MemoryRange>& ranges() const { return layout_.managed; }

    // Whether memory stands behind all of these addresses (conventional memory always does).
    bool present(std::uint64_t address, std::uint64_t bytes) const;

    // Direct access for firmware, boot loader and tests. The range must be present.
    void write(std::uint64_t address, std::span<const std::uint8_t> bytes);
    void read(std::uint64_t address, std::span<std::uint8_t> bytes) const;

    // A window: virtual address of the given physical range (any alignment), null when the range is
    // not present or no run of page table entries is left for it. Undone with the same address and length
    // only.
    void* map(std::uint64_t address, std::uint64_t bytes);
    void unmap(void* window, std::uint64_t bytes);

    // Managed pages, zeroed, with addresses from low to high; fewer when there are no more.
    std::vector<PageRun> take_pages(std::uint64_t low, std::uint64_t high, std::uint64_t count);
    void give_pages(std::span<const PageRun> runs);
    // A window on pages in this order, for this owner; null when no run of page table entries is left for it.
    // Undone with the same address and owner only.
    void* map_pages(std::span<const PageRun> runs, const void* owner);
    void unmap_pages(void* window, const void* owner);

    std::size_t windows() const;
    std::uint64_t window_bytes() const;
    std::uint32_t free_ptes() const;
    std::uint32_t largest_pte_run() const;
    std::uint64_t pages_in_use() const;

private:
    struct Window {
        std::uint64_t bytes;
        void* mapped;
        std::size_t mapped_bytes;
        const void* owner;  // null: a window on a physical range
        std::uint32_t first_pte;
    };
    bool unanswered(std::uint64_t address, std::uint64_t bytes) const;
    std::optional<std::uint32_t> reserve(std::size_t bytes);
    void release(std::uint32_t first_pte, std::size_t bytes);
    void fill_with_garbage(std::uint64_t address, std::uint64_t bytes);
    void fill_holes(std::uint64_t begin, std::uint64_t end) const;
    void* keep(void* window, const Window& details);
    void close_window(void* window, std::uint64_t bytes, const void* owner);
    bool map_runs(std::uint8_t* place, std::span<const PageRun> runs) const;
    void drop_contents(const PageRun& run) const;

    int file_ = -1;
    const PhysicalMemoryLayout layout_;
    mutable std::mutex lock_;  // guards what follows
    PageAllocator pages_;
    std::unordered_map<void*, Window> windows_;
    std::uint64_t window_bytes_ = 0;
    SystemPtes ptes_;
    std::vector<bool> blocks_seen_;  // of the memory above 4 GB that holds garbage
};

}  // namespace machine
