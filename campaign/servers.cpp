#include "campaign/servers.h"

#include <algorithm>
#include <cstring>

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

std::array<std::uint8_t, 4> disk_id(unsigned lun, bool mirrored)
{
    return {0x51, 0x52, static_cast<std::uint8_t>(mirrored ? formats::disk_id_mirror : 0),
            static_cast<std::uint8_t>(0xD0 + lun)};
}

formats::ServerRecord server_address(unsigned index)
{
    return machine::simulated_address(static_cast<std::uint8_t>(1 + index));
}

BlockServer::BlockServer(const Plan& plan, unsigned index, Canary& canary)
    : address_(server_address(index)), canary_(canary)
{
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun) {
        const DiskPlan& disk = plan.disks[lun];
        disks_.push_back({{},
                          std::make_unique<JournaledStore>(disk.sectors * std::uint64_t{512}, canary),
                          server::MemoryStore(0)});
        server::DiskOptions& options = disks_.back().options;
        const auto id = disk_id(lun, disk.mirrored);
        std::memcpy(options.disk_id, id.data(), id.size());
        options.cache_mb = disk.cache_mb;
    }
}

void BlockServer::join(machine::Scheduler& scheduler, machine::SimulatedNetwork& network,
                       std::int64_t skipped_ms)
{
    earlier_ms_ += skipped_ms;
    scheduler_ = &scheduler;
    network_ = &network;
    if (protocol_)
        attach();
    else
        start();
}

void BlockServer::leave()
{
    earlier_ms_ += scheduler_->now() / machine::ticks_per_ms;
    scheduler_ = nullptr;
    network_ = nullptr;
}

void BlockServer::start()
{
    protocol_ = std::make_unique<server::Protocol>(*this);
    for (Disk& disk : disks_)
        protocol_->add_disk(disk.options, *disk.store, disk.image.size_bytes() ? &disk.image : nullptr);
    attach();
}

void BlockServer::stop()
{
    network_->detach(address_);
    protocol_.reset();
}

void BlockServer::attach()
{
    network_->attach(address_,
                     [this](const formats::ServerRecord& from, std::span<const std::uint8_t> packet) {
                         const std::int64_t now_ms = earlier_ms_ + scheduler_->now() / machine::ticks_per_ms;
                         protocol_->set_time_ms(static_cast<std::uint64_t>(now_ms));
                         protocol_->receive(from, packet);
                     });
}

server::DiskCounters BlockServer::counters(unsigned lun) const
{
    return protocol_ ? protocol_->counters(lun) : server::DiskCounters{};
}

void BlockServer::send(const server::Peer&, std::span<const std::uint8_t> header,
                       std::span<const std::uint8_t> data)
{
    std::vector<std::uint8_t> packet(header.begin(), header.end());
    packet.insert(packet.end(), data.begin(), data.end());
    if (!canary_.changes_answer(packet))
        network_->send_from(address_, packet);
}

}  // namespace campaign
