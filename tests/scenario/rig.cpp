// SPDX-License-Identifier: MIT
#include "tests/scenario/rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace scenario {

using machine::Direction;
using machine::Outcome;

machine::Feeding usual_feeding()
{
    const char* way = std::getenv("QRN_FEEDING");
    return way && std::string(way) == "held_back" ? machine::Feeding::held_back : machine::Feeding::eager;
}

static machine::MachineConfig machine_config(const Plan& plan)
{
    machine::MachineConfig config;
    config.seed = plan.seed;
    config.reset_ports_work = plan.reset_ports_work;
    config.base_memory_kb = plan.base_memory_kb;
    config.memory_ranges = plan.memory_ranges;
    config.largest_pte_run = plan.largest_pte_run;
    config.feeding = plan.feeding;
    config.curious_class_driver = plan.curious_class_driver;
    config.srbs_may_time_out = false;
    if (plan.adjust_machine)
        plan.adjust_machine(config);
    return config;
}

static std::string driver_name()
{
    const char* name = std::getenv("QRN_DRIVER");
    return name ? name : "builtin";
}

formats::Boot_Param boot_block(const Plan& plan)
{
    formats::Boot_Param block = simulation::boot_block({.mode = plan.boot_mode,
                                                        .flags = plan.boot_flags,
                                                        .tag_key = plan.tag_key,
                                                        .rack_level = plan.rack_level});
    for (const DiskPlan& disk : plan.disks)
        simulation::add_disk(block, disk);
    if (plan.adjust_block)
        plan.adjust_block(block);
    return block;
}

static void leave_boot_record(machine::Machine& machine, const formats::Boot_Param& block)
{
    const formats::BootRecord record = formats::boot_record(block);
    auto bytes = reinterpret_cast<const std::uint8_t*>(&record);
    machine.memory().write(machine.config().base_memory_kb * 1024u, {bytes, sizeof record});
}

Rig::Rig(Plan wanted)
    : plan(std::move(wanted)), machine(machine_config(plan)), network(machine.scheduler(), plan.seed),
      driver(machine::driver_named(driver_name()))
{
    formats::Boot_Param block = boot_block(plan);
    if (plan.transport) {
        machine::Transport& transport = machine.add_transport(network);
        if (plan.handover == Handover::transport)
            transport.block() = block;
    }
    if (plan.handover == Handover::low_memory)
        leave_boot_record(machine, block);
    for (const auto& [name, value] : plan.settings)
        machine.registry().set_setting(name, value);
    network.set_observer([this](Direction direction, const formats::ServerRecord& server,
                                std::span<const std::uint8_t> packet) {
        packets_.push_back({now_ms(), direction, server, Bytes(packet.begin(), packet.end())});
        return drop && drop(packets_.back()) ? machine::SimulatedNetwork::Verdict::drop
                                             : machine::SimulatedNetwork::Verdict::pass;
    });
    for (simulation::BlockServer* server : {&main, &slave}) {
        for (const DiskPlan& disk : plan.disks)
            server->add_disk(disk, std::make_unique<server::MemoryStore>(
                                       std::min<std::uint64_t>(disk.sectors, stored_sectors_max) * 512));
        server->join(machine.scheduler(), network);
    }
    if (!plan.image.empty())
        main.image(0).bytes() = plan.image;
    main.start();
    if (std::ranges::any_of(plan.disks, &DiskPlan::mirrored))
        slave.start();
}

Rig::~Rig() = default;

void Rig::run_bare(std::function<void()> body, Outcome expect)
{
    Outcome outcome = machine.run(std::move(body));
    EXPECT_EQ(static_cast<int>(outcome), static_cast<int>(expect)) << machine.log().text();
}

void Rig::run(std::function<void()> body, Outcome expect)
{
    run_bare(
        [&] {
            ASSERT_EQ(boot(), 0);
            body();
        },
        expect);
}

std::vector<SeenPacket> Rig::sent(std::uint8_t sub_code, std::uint8_t kind) const
{
    std::vector<SeenPacket> found;
    for (const SeenPacket& packet : packets_)
        if (packet.direction == Direction::to_server && packet.is(sub_code, kind))
            found.push_back(packet);
    return found;
}

void Rig::script(std::function<void(const SeenPacket&)> answer)
{
    main.stop();
    // Shared, since the network copies its endpoints and a script may keep state.
    auto shared = std::make_shared<std::function<void(const SeenPacket&)>>(std::move(answer));
    network.attach(
        main.address(), [this, shared](const formats::ServerRecord&, std::span<const std::uint8_t> packet) {
            (*shared)({now_ms(), Direction::to_server, main.address(), Bytes(packet.begin(), packet.end())});
        });
}

double Rig::now_ms()
{
    return static_cast<double>(machine.scheduler().now()) / static_cast<double>(machine::ticks_per_ms);
}

std::size_t Rig::printed(const std::string& message)
{
    auto entries = machine.log().entries();
    return static_cast<std::size_t>(std::count_if(entries.begin(), entries.end(),
                                                  [&](const auto& entry) { return entry.text == message; }));
}

bool Rig::read(unsigned lun, std::uint32_t lba, Bytes& data)
{
    return scsi().read(static_cast<std::uint8_t>(lun), lba, data.data(),
                       static_cast<std::uint32_t>(data.size()));
}

bool Rig::write(unsigned lun, std::uint32_t lba, const Bytes& data)
{
    return scsi().write(static_cast<std::uint8_t>(lun), lba, data.data(),
                        static_cast<std::uint32_t>(data.size()));
}

// The part of an answer that names the packet it answers.
static formats::WireHeader answer_header(const SeenPacket& request, std::uint8_t kind)
{
    formats::WireHeader header{};
    std::memcpy(static_cast<void*>(&header), request.bytes.data(), formats::request_bytes);
    header.Sub_Code = formats::sub_request;
    header.Kind = kind;
    header.Recv_Mask.set(0);
    return header;
}

static Bytes packet_of(const formats::WireHeader& header, std::size_t header_bytes,
                       std::span<const std::uint8_t> data = {})
{
    auto begin = reinterpret_cast<const std::uint8_t*>(&header);
    Bytes packet(begin, begin + header_bytes);
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

Bytes read_data(const SeenPacket& request, unsigned number, unsigned count, std::uint16_t offset,
                std::span<const std::uint8_t> data)
{
    formats::WireHeader header = answer_header(request, formats::kind_read_data);
    header.Frag_Off.set(offset);
    header.Frag_Size.set(static_cast<std::uint16_t>(data.size()));
    header.Frag_Num = static_cast<std::uint8_t>(number);
    header.Frag_Cnt.set(static_cast<std::uint16_t>(count));
    return packet_of(header, formats::header_bytes, data);
}

std::vector<Bytes> read_data_all(const SeenPacket& request, std::span<const std::uint8_t> data)
{
    std::vector<Bytes> packets;
    unsigned count = formats::fragment_count(static_cast<unsigned>(data.size()));
    for (unsigned number = 1; number <= count; ++number) {
        std::size_t offset = (number - 1) * formats::fragment_bytes_max;
        std::size_t size = std::min<std::size_t>(formats::fragment_bytes_max, data.size() - offset);
        packets.push_back(read_data(request, number, count, static_cast<std::uint16_t>(offset),
                                    data.subspan(offset, size)));
    }
    return packets;
}

Bytes write_done(const SeenPacket& request)
{
    return packet_of(answer_header(request, formats::kind_write_done), formats::request_bytes);
}

Bytes acknowledge(const SeenPacket& request, std::uint16_t recv_mask)
{
    formats::WireHeader header = answer_header(request, formats::kind_acknowledge);
    header.Recv_Mask.set(recv_mask);
    return packet_of(header, formats::request_bytes);
}

Bytes pattern(std::uint32_t lba, std::size_t bytes, std::uint32_t generation)
{
    Bytes data(bytes);
    for (std::size_t offset = 0; offset + 8 <= bytes; offset += 8) {
        std::uint32_t words[2] = {lba + static_cast<std::uint32_t>(offset / 512),
                                  generation << 8 | static_cast<std::uint32_t>(offset % 512 / 8)};
        std::memcpy(&data[offset], words, sizeof words);
    }
    return data;
}

}  // namespace scenario
