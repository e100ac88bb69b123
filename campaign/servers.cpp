// SPDX-License-Identifier: MIT
#include "campaign/servers.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace campaign {

JournaledStore::JournaledStore(std::uint64_t size_bytes, Canary& canary)
    : server::MemoryStore(size_bytes), canary_(canary)
{
}

bool JournaledStore::write(std::uint64_t offset, std::span<const std::uint8_t> data)
{
    ++writes_;
    if (canary_.loses_write())
        return true;
    auto old = bytes().begin() + static_cast<std::ptrdiff_t>(offset);
    journal_.push_back({offset, {old, old + static_cast<std::ptrdiff_t>(data.size())}});
    if (journal_.size() > journal_max)
        journal_.pop_front();
    return server::MemoryStore::write(offset, data);
}

// As a file system would, that keeps whole blocks of zeros as holes.
bool JournaledStore::hole(std::uint64_t offset, std::uint64_t count)
{
    const auto first = bytes().begin() + static_cast<std::ptrdiff_t>(offset);
    return std::all_of(first, first + static_cast<std::ptrdiff_t>(count),
                       [](std::uint8_t byte) { return byte == 0; });
}

void JournaledStore::lose_writes(
    unsigned count, const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& changed)
{
    for (; count != 0 && !journal_.empty(); --count) {
        const Replaced last = std::move(journal_.back());
        journal_.pop_back();
        server::MemoryStore::write(last.offset, last.bytes);
        changed(last.offset, last.bytes.size());
    }
}

BlockServer::BlockServer(const Plan& plan, unsigned index, Canary& canary)
    : simulation::BlockServer(index), canary_(canary)
{
    for (const DiskPlan& disk : plan.disks) {
        auto store = std::make_unique<JournaledStore>(disk.sectors * std::uint64_t{512}, canary);
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
