// SPDX-License-Identifier: MIT
// A block server in a simulated network: the server's protocol over disks in memory, which outlive its
// crashes and the machine that uses them. Set up outside the simulation; packets come at DISPATCH_LEVEL.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "machine/scheduler/scheduler.h"
#include "machine/transport/simulated_network.h"
#include "server/protocol.h"
#include "simulation/boot_block.h"

namespace simulation {

class BlockServer : public server::PacketSink {
public:
    explicit BlockServer(unsigned index);  // at server_address(index)

    // The next LUN, served from the next start() on.
    void add_disk(const Disk& disk, std::unique_ptr<server::MemoryStore> store);

    // The workstation's network, for as long as it is on. A running server goes on there. skipped_ms: what
    // passed before, beyond the time of the machines that were on.
    void join(machine::Scheduler& scheduler, machine::SimulatedNetwork& network, std::int64_t skipped_ms = 0);
    void leave();

    void start();  // in a network; after stop() the protocol's memory is gone, the disks' content stays
    void stop();
    bool running() const { return protocol_ != nullptr; }

    const formats::ServerRecord& address() const { return address_; }
    std::vector<std::uint8_t>& content(unsigned lun) { return disks_[lun].store->bytes(); }
    server::MemoryStore& store(unsigned lun) { return *disks_[lun].store; }
    // The disk's image area; without content there is none. Its size counts at the next start().
    server::MemoryStore& image(unsigned lun) { return disks_[lun].image; }
    server::Protocol& protocol() { return *protocol_; }
    // Zeros when it is not running.
    server::DiskCounters counters(unsigned lun) const;

    void send(const server::Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override;

protected:
    // Every packet that leaves.
    virtual void transmit(std::vector<std::uint8_t>& packet) { network_->send_from(address_, packet); }

private:
    struct Disk {
        server::DiskOptions options;
        std::unique_ptr<server::MemoryStore> store;
        server::MemoryStore image;
    };
    void attach();

    formats::ServerRecord address_;
    std::vector<Disk> disks_;
    std::unique_ptr<server::Protocol> protocol_;
    machine::Scheduler* scheduler_ = nullptr;
    machine::SimulatedNetwork* network_ = nullptr;
    std::int64_t earlier_ms_ = 0;  // before the present network
};

}  // namespace simulation
