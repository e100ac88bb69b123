// SPDX-License-Identifier: MIT
#include "simulation/block_server.h"

#include <algorithm>
#include <utility>

namespace simulation {

BlockServer::BlockServer(unsigned index) : address_(server_address(index)) {}

void BlockServer::add_disk(const simulation::Disk& disk, std::unique_ptr<server::MemoryStore> store)
{
    server::DiskOptions options;
    std::ranges::copy(disk_id(static_cast<unsigned>(disks_.size()), disk.mirrored), options.disk_id);
    options.cache_mb = disk.cache_mb;
    disks_.push_back({options, std::move(store), server::MemoryStore(0)});
}

void BlockServer::join(machine::Scheduler& scheduler, machine::SimulatedNetwork& network,
                       std::int64_t skipped_ms)
{
    earlier_ms_ += skipped_ms;
    scheduler_ = &scheduler;
    network_ = &network;
    if (running())
        attach();
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
    return running() ? protocol_->counters(lun) : server::DiskCounters{};
}

void BlockServer::send(const server::Peer&, std::span<const std::uint8_t> header,
                       std::span<const std::uint8_t> data)
{
    std::vector<std::uint8_t> packet(header.begin(), header.end());
    packet.insert(packet.end(), data.begin(), data.end());
    transmit(packet);
}

}  // namespace simulation
