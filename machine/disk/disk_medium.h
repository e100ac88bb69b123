// SPDX-License-Identifier: MIT
// What a local disk's bytes lie on: a host file, in front of it the disk's volatile write cache. A write in
// the cache is read back like any other; it reaches the file when its time has come, and a power cut loses
// or tears it.
//
// Reads and plain writes may be made by any number of threads at once. The cache is for the simulated
// scheduler, where one thread runs at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "machine/scheduler/random.h"
#include "machine/scheduler/scheduler.h"

namespace machine {

constexpr std::uint32_t disk_sector_bytes = 512;

class DiskMedium {
public:
    // All zeros, in memory; only what is written takes any.
    explicit DiskMedium(std::uint64_t sectors);
    // An image file; an incomplete sector at its end is left alone. Both throw std::system_error.
    explicit DiskMedium(const std::string& path);
    ~DiskMedium();
    DiskMedium(const DiskMedium&) = delete;
    DiskMedium& operator=(const DiskMedium&) = delete;

    std::uint64_t sectors() const { return sectors_; }

    // Whole sectors of the disk. False when the host cannot read or write its file.
    bool read(std::uint64_t sector, std::span<std::uint8_t> bytes) const;
    // The same if the host has it all in its memory, else false soon.
    bool read_at_hand(std::uint64_t sector, std::span<std::uint8_t> bytes) const;
    bool write(std::uint64_t sector, std::span<const std::uint8_t> bytes);
    // What is written to the host's file outlives the host. False when the host cannot promise it.
    bool flush();

    // Into the cache until the time given.
    void write_cached(std::uint64_t sector, std::span<const std::uint8_t> bytes, Ticks durable_at);
    // Moves what is due to the file.
    void settle(Ticks now);
    // Each cached write is kept, lost or torn between sectors; then the cache is empty.
    void power_cut(Random& random);

private:
    enum class Fate { undecided, kept, lost, torn };

    struct CachedWrite {
        std::uint64_t sector;
        std::vector<std::uint8_t> bytes;
        Fate fate = Fate::undecided;

        std::uint64_t end() const { return sector + bytes.size() / disk_sector_bytes; }
        std::span<const std::uint8_t> of(std::uint64_t number) const
        {
            const auto index = static_cast<std::size_t>(number - sector);
            return std::span(bytes).subspan(index * disk_sector_bytes, disk_sector_bytes);
        }
    };
    using Versions = std::vector<std::shared_ptr<CachedWrite>>;  // oldest first, never empty

    void read_cached(std::uint64_t sector, std::span<std::uint8_t> bytes) const;
    void settle(const std::shared_ptr<CachedWrite>& write);
    static bool survives(CachedWrite& write, Random& random);

    int file_;
    std::uint64_t sectors_;
    std::map<std::uint64_t, Versions> cache_;  // by sector
    std::multimap<Ticks, std::shared_ptr<CachedWrite>> due_;
};

}  // namespace machine
