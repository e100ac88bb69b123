// SPDX-License-Identifier: MIT
#include "campaign/servers.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <fmt/format.h>

#include "campaign/report.h"

namespace campaign {

JournaledStore::JournaledStore(std::uint64_t size_bytes, std::uint64_t first_byte, Canary& canary)
    : server::MemoryStore(size_bytes), first_byte_(first_byte), canary_(canary)
{
}

bool JournaledStore::read(std::uint64_t offset, std::span<std::uint8_t> out)
{
    if (offset < first_byte_) {
        std::ranges::fill(out, std::uint8_t{0});
        return true;
    }
    const bool done = server::MemoryStore::read(offset - first_byte_, out);
    errors_ += !done;
    return done;
}

bool JournaledStore::write(std::uint64_t disk_offset, std::span<const std::uint8_t> data)
{
    ++writes_;
    if (canary_.loses_write())
        return true;
    if (disk_offset < first_byte_)
        fail(fmt::format("a write to byte {:X} of a disk that is used from {:X} on", disk_offset,
                         first_byte_));
    const std::uint64_t offset = disk_offset - first_byte_;
    const auto place = bytes().begin() + static_cast<std::ptrdiff_t>(offset);
    Replaced replaced{offset, {place, place + static_cast<std::ptrdiff_t>(data.size())}};
    if (!server::MemoryStore::write(offset, data)) {
        ++errors_;
        return false;
    }
    journal_.push_back(std::move(replaced));
    if (journal_.size() > journal_max)
        journal_.pop_front();
    return true;
}

// As a file system would, that keeps whole blocks of zeros as holes.
bool JournaledStore::hole(std::uint64_t offset, std::uint64_t count)
{
    if (offset < first_byte_)
        return false;
    const auto first = bytes().begin() + static_cast<std::ptrdiff_t>(offset - first_byte_);
    return std::all_of(first, first + static_cast<std::ptrdiff_t>(count),
                       [](std::uint8_t byte) { return byte == 0; });
}

void JournaledStore::lose_writes(
    unsigned count, const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& changed)
{
    for (; count != 0 && !journal_.empty(); --count) {
        const Replaced last = std::move(journal_.back());
        journal_.pop_back();
        std::ranges::copy(last.bytes, bytes().begin() + static_cast<std::ptrdiff_t>(last.offset));
        changed(last.offset, last.bytes.size());
    }
}

BlockServer::BlockServer(const Plan& plan, unsigned index, Canary& canary)
    : simulation::BlockServer(index), canary_(canary)
{
    for (const DiskPlan& disk : plan.disks) {
        auto store = std::make_unique<JournaledStore>(disk.sectors * std::uint64_t{512},
                                                      disk.first_lba * std::uint64_t{512}, canary);
        stores_.push_back(store.get());
        add_disk(disk, std::move(store));
    }
}

void BlockServer::transmit(std::vector<std::uint8_t>& packet)
{
    if (!canary_.changes_answer(packet))
        simulation::BlockServer::transmit(packet);
}

}  // namespace campaign
