// SPDX-License-Identifier: MIT
#include "machine/disk/local_disk.h"

#include <algorithm>
#include <stdexcept>

#include "machine/disk/disk_state.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

void check_sectors(const DiskMedium& medium, std::uint64_t sector, std::uint64_t bytes)
{
    const std::uint64_t count = bytes / disk_sector_bytes;
    if (bytes > PTRDIFF_MAX || bytes % disk_sector_bytes != 0 || sector > medium.sectors() ||
        count > medium.sectors() - sector)
        throw std::out_of_range("not whole sectors of the local disk");
}

void check_host(bool done)
{
    if (!done)
        throw std::runtime_error("the host cannot read or write the local disk's file");
}

}  // namespace

DiskState::DiskState(std::unique_ptr<DiskMedium> disk_medium, const LocalDiskOptions& disk_options)
    : options(disk_options), medium(std::move(disk_medium)), random(disk_options.seed)
{
}

std::int64_t DiskState::draw(std::int64_t from, std::int64_t to)
{
    if (from >= to)
        return from;
    std::lock_guard guard(lock);
    const auto choices = static_cast<std::uint64_t>(to - from) + 1;
    return from + static_cast<std::int64_t>(random.next() % choices);
}

bool DiskState::chance(double probability)
{
    std::lock_guard guard(lock);
    return random.chance(probability);
}

bool DiskState::bad(std::uint64_t sector, std::uint64_t count) const
{
    std::lock_guard guard(lock);
    return std::ranges::any_of(
        bad_ranges, [=](const auto& range) { return sector < range.second && sector + count > range.first; });
}

LocalDisk::LocalDisk(std::uint64_t sectors, const LocalDiskOptions& options)
    : state_(std::make_shared<DiskState>(std::make_unique<DiskMedium>(sectors), options))
{
}

LocalDisk::LocalDisk(const std::string& path, const LocalDiskOptions& options)
    : state_(std::make_shared<DiskState>(std::make_unique<DiskMedium>(path), options))
{
}

std::uint64_t LocalDisk::sectors() const
{
    return state_->medium->sectors();
}

LocalDiskCounters LocalDisk::counters() const
{
    return {.reads = state_->reads,
            .writes = state_->writes,
            .bytes_read = state_->bytes_read,
            .bytes_written = state_->bytes_written,
            .read_errors = state_->read_errors,
            .write_errors = state_->write_errors};
}

std::vector<std::uint8_t> LocalDisk::read(std::uint64_t sector, std::uint32_t count) const
{
    const std::uint64_t bytes = std::uint64_t{count} * disk_sector_bytes;
    check_sectors(*state_->medium, sector, bytes);
    std::vector<std::uint8_t> result(static_cast<std::size_t>(bytes));
    check_host(state_->medium->read(sector, result));
    return result;
}

void LocalDisk::write(std::uint64_t sector, std::span<const std::uint8_t> bytes)
{
    check_sectors(*state_->medium, sector, bytes.size());
    check_host(state_->medium->write(sector, bytes));
}

void LocalDisk::set_bad(std::uint64_t first_sector, std::uint64_t count, bool bad)
{
    const std::uint64_t end = first_sector + count;
    std::lock_guard guard(state_->lock);
    auto& ranges = state_->bad_ranges;
    if (bad) {
        ranges.emplace_back(first_sector, end);
        return;
    }
    std::vector<std::pair<std::uint64_t, std::uint64_t>> left;
    for (const auto& [range_first, range_end] : ranges) {
        if (range_first < std::min(range_end, first_sector))
            left.emplace_back(range_first, std::min(range_end, first_sector));
        if (std::max(range_first, end) < range_end)
            left.emplace_back(std::max(range_first, end), range_end);
    }
    ranges = std::move(left);
}

void LocalDisk::power_cut(Random& random)
{
    if (state_->attached)
        violation("the local disk's power is cut while a machine still has the disk");
    state_->medium->power_cut(random);
}

}  // namespace machine
