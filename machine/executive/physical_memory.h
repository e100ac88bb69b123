// Physical memory as one sparse memory file. Conventional memory below 640 KB, the managed ranges and
// memory above 4 GB are offsets in it; a mapping is a real mmap of it.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace machine {

struct MemoryRange {
    std::uint64_t base;    // physical address in bytes
    std::uint64_t length;  // bytes
};

class PhysicalMemory {
public:
    // ranges: what the system manages; above_4g_bytes: memory from 4 GB up that it does not.
    PhysicalMemory(std::vector<MemoryRange> ranges, std::uint64_t above_4g_bytes);
    ~PhysicalMemory();
    PhysicalMemory(const PhysicalMemory&) = delete;
    PhysicalMemory& operator=(const PhysicalMemory&) = delete;

    const std::vector<MemoryRange>& ranges() const { return ranges_; }

    // Whether memory stands behind all of these addresses (conventional memory always does).
    bool present(std::uint64_t address, std::uint64_t bytes) const;

    // Direct access for firmware, boot loader and tests. The range must be present.
    void write(std::uint64_t address, std::span<const std::uint8_t> bytes);
    void read(std::uint64_t address, std::span<std::uint8_t> bytes) const;

    // A window: virtual address of the given physical range (any alignment), null when the range is
    // not present or no address space is left. Undone with the same address and length only.
    void* map(std::uint64_t address, std::uint64_t bytes);
    void unmap(void* window, std::uint64_t bytes);
    std::size_t windows() const;

private:
    struct Window {
        void* address;
        std::uint64_t bytes;
        void* mapped;
        std::size_t mapped_bytes;
    };
    int file_ = -1;
    std::vector<MemoryRange> ranges_;
    std::uint64_t above_4g_bytes_;
    mutable std::mutex lock_;  // guards windows_
    std::vector<Window> windows_;
};

}  // namespace machine
