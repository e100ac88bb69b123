// SPDX-License-Identifier: MIT
#include "campaign/checks.h"

#include <algorithm>
#include <bit>

#include <fmt/format.h>

#include "formats/wire.h"

namespace campaign {
namespace {

constexpr std::int64_t completion_bound_ms = 60'000;
constexpr unsigned operations_each = 12;
constexpr std::size_t windows_max = 16;

template <typename Condition>
void wait_for(Workstation& station, Condition done, const char* what, Load& load)
{
    const std::int64_t limit_ms = station.now_ms() + completion_bound_ms;
    while (!done()) {
        if (station.now_ms() > limit_ms)
            fail(fmt::format("{} {} s after the last fault: {}", what, completion_bound_ms / 1000,
                             load.waiting()));
        station.machine.sleep_ms(10);
    }
}

bool plain(const DiskPlan& disk)
{
    return (disk.flags & formats::disk_flag_ram_cache) == 0;
}

// So many chunks of a disk may be under way at once.
unsigned slots_of(const Plan& plan, unsigned lun)
{
    constexpr unsigned default_slots = 4, slots_max = 8;
    const std::uint8_t flags = plan.disks[lun].flags;
    if (flags & formats::disk_flag_one_slot && plain(plan.disks[lun]))
        return 1;
    const unsigned slots = flags & formats::disk_flag_slots;
    return slots >= 1 && slots <= slots_max ? slots : default_slots;
}

unsigned workers_of(const Plan& plan)
{
    constexpr unsigned default_workers = 6;
    const auto setting = plan.settings.find("RW_THREADS");
    unsigned workers = setting == plan.settings.end() ? default_workers : setting->second;
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun)
        workers = std::max(workers, slots_of(plan, lun));
    return workers;
}

// Reads of a whole disk at once, of which the servers hear nothing: all slots come to be taken.
void count_slots(Workstation& station, unsigned lun, FaultSchedule& faults)
{
    const Plan& plan = station.world.plan;
    const unsigned expected = std::min(slots_of(plan, lun), workers_of(plan));
    constexpr unsigned requests = 8;
    constexpr std::uint32_t request_sectors = 2;
    std::vector<std::unique_ptr<machine::ScsiRequest>> reads;
    std::vector<std::uint8_t> data(requests * request_sectors * formats::sector_bytes);
    const std::int64_t begin_ms = station.now_ms();
    for (const BlockServer* server : {&station.world.main, &station.world.slave})
        station.network.partition(server->address(), true);
    station.watch_workers();
    unsigned done = 0;
    for (unsigned i = 0; i < requests; ++i) {
        reads.push_back(std::make_unique<machine::ScsiRequest>(station.scsi()));
        reads.back()->done = [&done](machine::ScsiRequest&) { ++done; };
        reads.back()->set_read(
            static_cast<std::uint8_t>(lun), plan.disks[lun].first_lba + i * request_sectors,
            &data[i * request_sectors * formats::sector_bytes], request_sectors * formats::sector_bytes);
        station.scsi().submit(*reads.back());
    }
    station.machine.sleep_ms(50);
    const auto taken = static_cast<unsigned>(std::popcount(station.workers(lun)));
    for (const BlockServer* server : {&station.world.main, &station.world.slave})
        station.network.partition(server->address(), false);
    faults.servers_away(begin_ms, station.now_ms());
    while (done != requests)
        station.machine.sleep_ms(10);
    if (taken != expected)
        fail(fmt::format("LUN {} has {} of its {} slots", lun, taken, expected));
    station.world.coverage.add("slots of a disk counted");
}

}  // namespace

void expect_all_complete(Workstation& station, Load& load)
{
    load.stop();
    wait_for(
        station, [&] { return load.active() == 0; }, "requests still wait", load);
}

void expect_requests_succeed(Workstation& station, Load& load)
{
    const bool all_set_up = load.all_shown();
    load.start_operations(operations_each);
    wait_for(
        station, [&] { return load.active() == 0; }, "new requests wait", load);
    const std::uint64_t pool = station.machine.pool_bytes();
    load.start_operations(operations_each);
    wait_for(
        station, [&] { return load.active() == 0; }, "new requests wait", load);
    // The synchronisation of a local image has objects of its own while it runs, and a disk sets up its cache
    // with its first request.
    if (all_set_up && !station.world.plan.boots_locally() && station.machine.pool_bytes() > pool)
        fail(fmt::format("the pool grew from {} to {} bytes while requests came and went", pool,
                         station.machine.pool_bytes()));
    if (station.machine.memory().windows() > windows_max * formats::disk_count_max)
        fail(fmt::format("{} windows are open", station.machine.memory().windows()));
    if (const unsigned held = station.machine.transport()->unreleased(); held > 1)
        fail(fmt::format("{} received packets were not given back", held));
    // The class driver's own reads of a disk that came late may still wait for its server.
    wait_for(
        station, [&] { return station.scsi().in_flight() == 0; }, "requests are in flight when none was made",
        load);
}

void expect_slots_back(Workstation& station, Load& load, FaultSchedule& faults)
{
    const Plan& plan = station.world.plan;
    if (plan.boots_locally() || faults.weakened())
        return;
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun)
        if (plain(plan.disks[lun]) && load.reachable(lun))
            count_slots(station, lun, faults);
}

void expect_contents(Workstation& station, Load& load)
{
    for (unsigned lun = 0; lun < station.world.plan.disks.size(); ++lun)
        if (const auto lba = load.read_all(lun))
            fail(fmt::format("LUN {} cannot be read at LBA {} though nothing is wrong", lun, *lba));
}

void expect_poll_totals(Workstation& station, Load& load)
{
    World& world = station.world;
    const formats::ServerRecord& self = world.main.address();
    world.main.protocol().send_poll(station.network.workstation(), self);
    station.machine.sleep_ms(1000);
    const auto reply_bytes = world.main.protocol().last_poll_reply();
    if (reply_bytes.size() != sizeof(formats::PollReply))
        fail("the status poll is not answered");
    const auto& reply = *reinterpret_cast<const formats::PollReply*>(reply_bytes.data());
    for (unsigned lun = 0; lun < world.plan.disks.size(); ++lun) {
        const formats::PollDisk& disk = reply.Disks[lun];
        if (!plain(world.plan.disks[lun]) || world.plan.boots_locally() || !load.reachable(lun))
            continue;
        if (disk.Wr_Secs.get() != load.written_sectors(lun))
            fail(fmt::format("LUN {} reports {} sectors written, which were {}", lun, disk.Wr_Secs.get(),
                             load.written_sectors(lun)));
        if (disk.Rd_Secs.get() < load.read_sectors(lun))
            fail(fmt::format("LUN {} reports {} sectors read, which were {}", lun, disk.Rd_Secs.get(),
                             load.read_sectors(lun)));
        world.coverage.add("totals of the status poll compared");
        world.coverage.add("uptime: sequence numbers past 16 bits",
                           (disk.Rd_Seq.get() > 0xFFFF) + (disk.Wr_Seq.get() > 0xFFFF));
    }
}

}  // namespace campaign
