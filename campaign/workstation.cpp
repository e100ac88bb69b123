// SPDX-License-Identifier: MIT
#include "campaign/workstation.h"

#include <bit>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "formats/boot_record.h"
#include "formats/cache_stats.h"
#include "formats/image_descriptor.h"
#include "formats/wire.h"

namespace campaign {
namespace {

using formats::Boot_Param;
using machine::Direction;

constexpr std::uint32_t stack_bytes_max = 6 * 1024;
constexpr std::int64_t disks_appear_ms = 10'000;
constexpr std::uint32_t descriptor_offset = 0x200;  // from the boot record on

machine::MachineConfig machine_config(const Plan& plan, unsigned number)
{
    machine::MachineConfig config;
    config.seed = Stream(plan.seed, "schedule", number).next();
    config.memory_ranges = plan.memory.ranges;
    config.unmanaged_above_4g_bytes = plan.memory.above_4g_bytes;
    if (plan.memory.system_ptes != 0)
        config.system_ptes = plan.memory.system_ptes;
    config.largest_pte_run = plan.memory.largest_pte_run;
    if (plan.memory.nonpaged_pool_bytes_max != 0)
        config.nonpaged_pool_bytes_max = plan.memory.nonpaged_pool_bytes_max;
    config.garbage_above_4g = plan.memory.garbage_above_4g;
    config.stack_bytes_max = stack_bytes_max;
    config.mm64bit = plan.memory.mm64bit;
    config.reset_ports_work = plan.reset_ports_work;
    config.feeding = plan.feeding;
    config.curious_class_driver = plan.curious_class_driver;
    config.scan_stops_at_gap = plan.scan_stops_at_gap;
    config.checks_transfers = plan.checks_transfers;
    config.srbs_may_time_out = false;
    config.processors = plan.processors;
    config.clock_tick_100ns = plan.clock_tick_100ns;
    config.switch_at_atomics = plan.switch_at_atomics;
    return config;
}

Boot_Param boot_block(const Plan& plan)
{
    Boot_Param block = simulation::boot_block({.mode = plan.boot_mode,
                                               .flags = plan.boot_flags,
                                               .tag_key = plan.tag_key,
                                               .rack_level = plan.rack_level});
    for (const DiskPlan& plan_disk : plan.disks) {
        simulation::Disk disk = plan_disk;
        disk.sectors += plan_disk.first_lba;
        simulation::add_disk(block, disk);
    }
    if (plan.boots_locally()) {
        block.Local_Nums = 1;
        ++block.Disk_Nums;
        if (!plan.local.synchronise)
            block.Boot_Flags |= formats::boot_flag_no_image_sync;
    }
    return block;
}

template <typename Object>
std::span<const std::uint8_t> bytes_of(const Object& object)
{
    return {reinterpret_cast<const std::uint8_t*>(&object), sizeof object};
}

}  // namespace

Workstation::Workstation(World& owner, unsigned start, machine::DriverImage& driver, std::int64_t off_ms)
    : world(owner), number(start), machine(machine_config(owner.plan, start)),
      network(machine.scheduler(), Stream(owner.plan.seed, "network", start).next()), driver_(driver),
      rules_(world.plan)
{
    report_on(&machine);
    const Plan& plan = world.plan;
    machine::Transport& transport = machine.add_transport(network);
    if (plan.through_transport)
        transport.block() = boot_block(plan);
    else
        leave_boot_block();
    for (const auto& [name, value] : plan.settings)
        machine.registry().set_setting(name, value);
    machine.registry().set_dword(machine::Registry::memory_management_key, u"PhysicalAddressExtension",
                                 plan.pae);
    network.set_quality(plan.network);
    network.set_observer([this](Direction direction, const formats::ServerRecord& server,
                                std::span<const std::uint8_t> packet) {
        see(direction, server, packet);
        capture(direction, server, packet);
        return machine::SimulatedNetwork::Verdict::pass;
    });
    for (BlockServer* server : {&world.main, &world.slave}) {
        server->join(machine.scheduler(), network, off_ms);
        if (!server->running())
            server->start();
        for (unsigned lun = 0; lun < plan.disks.size(); ++lun)
            server->store(lun).set_failing(false, false);
    }
    if (world.local)
        machine.add_local_disk(*world.local, static_cast<unsigned>(plan.disks.size()));
}

Workstation::~Workstation()
{
    world.simulated_s += static_cast<double>(machine.scheduler().now()) / machine::ticks_per_second;
    world.main.leave();
    world.slave.leave();
    report_on(nullptr);
}

// In boot mode 7 the code that boots from the local disk leaves the system disk's first sector as well.
void Workstation::leave_boot_block()
{
    const std::uint32_t base = machine.config().base_memory_kb * 1024u;
    machine.memory().write(base, bytes_of(formats::boot_record(boot_block(world.plan))));
    if (!world.plan.boots_locally())
        return;
    formats::ImageDescriptor descriptor{};
    std::memcpy(descriptor.Mark, formats::image_descriptor_mark, sizeof descriptor.Mark);
    descriptor.Kind.set(formats::image_descriptor_kind);
    descriptor.Displacement.set(formats::paragraph_bytes - formats::image_descriptor_jump_bytes);
    machine.memory().write(base + descriptor_offset, bytes_of(descriptor));
    machine.memory().write(base + descriptor_offset + formats::paragraph_bytes,
                           world.stored(world.main, {0, 0}));
}

void Workstation::boot()
{
    if (world.plan.transport_late_ms != 0) {
        formats::Boot_Param& block = machine.transport()->block();
        const std::uint8_t disks = std::exchange(block.Disk_Nums, formats::disk_nums_searching);
        machine.scheduler().call_at(machine.scheduler().now() +
                                        world.plan.transport_late_ms * machine::ticks_per_ms,
                                    [&block, disks] { block.Disk_Nums = disks; });
    }
    const std::int32_t status = machine.boot(driver_);
    if (status != 0)
        fail(fmt::format("the driver does not load: {:08X}", static_cast<std::uint32_t>(status)));
    const std::int64_t limit_ms = now_ms() + disks_appear_ms;
    while (scsi().luns().size() != world.plan.disks.size()) {
        if (now_ms() > limit_ms)
            fail(fmt::format("{} of {} disks appear", scsi().luns().size(), world.plan.disks.size()));
        machine.sleep_ms(50);
    }
}

// One start after the other, in a time that begins in 1970.
void Workstation::capture(Direction direction, const formats::ServerRecord& server,
                          std::span<const std::uint8_t> packet)
{
    if (world.capture == nullptr)
        return;
    const auto before = static_cast<machine::Ticks>(world.simulated_s * machine::ticks_per_second);
    const formats::ServerRecord& own = network.workstation();
    const bool leaves = direction == Direction::to_server;
    world.capture->add(before + machine.scheduler().now(), leaves ? own : server, leaves ? server : own,
                       packet);
}

// The status poll's answer has addresses in it, which differ from one way of loading the driver to another.
void Workstation::see(Direction direction, const formats::ServerRecord& server,
                      std::span<const std::uint8_t> packet)
{
    if (packet.size() >= 2 && std::memcmp(packet.data(), formats::poll_reply_mark, 2) == 0)
        return;
    world.events.add(static_cast<std::uint64_t>(machine.scheduler().now()));
    world.events.add(packet);
    const std::int64_t now_ms = machine.scheduler().now() / machine::ticks_per_ms;
    if (direction != Direction::to_server)
        return rules_.answered(packet, now_ms);
    const bool to_slave = server.Ip[3] == world.slave.address().Ip[3];
    const bool alone = rules_.sent(packet, to_slave, now_ms);
    formats::WireHeader header{};
    std::memcpy(static_cast<void*>(&header), packet.data(), formats::request_bytes);
    const unsigned lun = (header.Disk_Id[3] - 0xD0u) % formats::disk_count_max;
    workers_[lun] |= 1u << (header.Worker_Byte & formats::worker_index_mask);
    const bool slave_read =
        to_slave && header.Sub_Code == formats::sub_request && header.Kind == formats::kind_read;
    if ((slave_read || alone) && !left_main(lun)) {
        left_main_ |= 1u << lun;
        if (on_main_left)
            on_main_left(lun);
    }
}

void Workstation::count_events()
{
    Coverage& coverage = world.coverage;
    const std::size_t deepest_kb = (machine.scheduler().deepest_stack().bytes + 1023) / 1024;
    coverage.add(fmt::format("deepest stack of a start: up to {} KB", deepest_kb));
    for (const auto& entry : machine.log().entries())
        coverage.add_message(entry.text);
    for (const Direction direction : {Direction::to_server, Direction::to_workstation}) {
        const machine::NetworkCounters& counters = network.counters(direction);
        coverage.add("network: packets lost", counters.lost);
        coverage.add("network: packets duplicated", counters.duplicated);
        coverage.add("network: packets reordered", counters.reordered);
        coverage.add("network: packets corrupted", counters.corrupted);
        coverage.add("network: packets partitioned", counters.partitioned);
    }
    const auto* caches = static_cast<const formats::CacheStats*>(driver_.exported("QRN_Cache_Stats"));
    for (unsigned lun = 0; caches && lun < formats::disk_count_max; ++lun) {
        coverage.add("cache: hits", caches[lun].Hits);
        coverage.add("cache: misses", caches[lun].Misses);
        coverage.add("cache: fills", caches[lun].Fills);
        coverage.add("cache: write-backs", caches[lun].Write_Backs);
        coverage.add("cache: write-throughs", caches[lun].Write_Throughs);
    }
}

}  // namespace campaign
