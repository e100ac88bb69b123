// SPDX-License-Identifier: MIT
// For targets in which the linked driver is booted: a workstation with two disks on one server, in virtual
// time.
#pragma once

#include <functional>

#include "formats/wire.h"
#include "fuzz/kernel.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/simulated_network.h"
#include "machine/transport/transport.h"
#include "server/protocol.h"

namespace fuzz {

constexpr unsigned disk_sectors = 4096;

inline formats::Boot_Param two_disks(std::uint8_t flags)
{
    formats::Boot_Param block{};
    block.Lun_Nums = block.Disk_Nums = 2;
    block.Tag_Key.set(0x12345678);
    block.Rack_Level.set(formats::rack_level_status_query);
    for (unsigned lun = 0; lun < 2; ++lun) {
        formats::Disk_Info& disk = block.Disks[lun];
        disk.Disk_Id[0] = 0x51;
        disk.Disk_Id[3] = static_cast<std::uint8_t>(lun);
        disk.Disk_Secs.set(disk_sectors);
        disk.Read_KB = disk.Write_KB = 0x70;
        disk.Disk_Flags = flags;
        disk.Retry_Mins = 1;
        block.Main_Server[lun] = machine::simulated_address(1);
    }
    return block;
}

class Workstation : public server::PacketSink {
public:
    // Takes a packet to the server away.
    using Intercept = std::function<bool(std::span<const std::uint8_t> packet)>;

    explicit Workstation(const formats::Boot_Param& block, machine::MachineConfig config = {})
        : machine(std::move(config)), network(machine.scheduler(), 1),
          protocol(*this), stores{server::MemoryStore(disk_sectors * 512),
                                  server::MemoryStore(disk_sectors * 512)}
    {
        machine.log().set_sink([](const auto&) {}, false);
        machine.add_transport(network).block() = block;
        for (unsigned lun = 0; lun < 2; ++lun) {
            server::DiskOptions options;
            std::memcpy(options.disk_id, two_disks(0).Disks[lun].Disk_Id, sizeof options.disk_id);
            protocol.add_disk(options, stores[lun]);
        }
        network.attach(machine::simulated_address(1), [this](const auto& from, auto packet) {
            if (!intercept || !intercept(packet))
                protocol.receive(from, packet);
        });
    }

    // Boots, and runs body as a kernel thread to its end.
    void run(const std::function<void()>& body)
    {
        const auto end = machine.run([&] {
            require(machine.boot(*machine::builtin_driver()) == 0, "the driver loads");
            body();
            machine.sleep_ms(10);
        });
        require(end == machine::Outcome::finished, "every request ends");
        require(machine.transport()->unreleased() == 0, "every packet is released");
    }
    void send(const server::Peer&, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override
    {
        Bytes packet(header.begin(), header.end());
        packet.insert(packet.end(), data.begin(), data.end());
        answer(packet);
    }
    void answer(const Bytes& packet) { network.send_from(machine::simulated_address(1), packet); }

    machine::Machine machine;
    machine::SimulatedNetwork network;
    server::Protocol protocol;
    server::MemoryStore stores[2];
    Intercept intercept;
};

// Gives a packet that is long enough the header by which the driver knows the answer to a request.
inline void make_answer(Bytes& packet, std::span<const std::uint8_t> request)
{
    if (packet.size() < formats::request_bytes)
        return;
    std::copy_n(request.begin(), 4, packet.begin());
    std::copy_n(request.begin() + formats::match_offset, formats::match_bytes,
                packet.begin() + formats::match_offset);
}

// Every sector names itself.
inline Bytes pattern(unsigned lba, std::size_t bytes, std::uint32_t version)
{
    Bytes data(bytes);
    for (std::size_t at = 0; at < bytes; at += 8) {
        const std::uint32_t words[2] = {lba + static_cast<std::uint32_t>(at / 512), version};
        std::memcpy(&data[at], words, sizeof words);
    }
    return data;
}

}  // namespace fuzz
