// SPDX-License-Identifier: MIT
#include "campaign/faults.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace campaign {
namespace {

using machine::Operation;

constexpr std::uint32_t bad_sectors = 16;

machine::NetworkQuality bad_quality(const machine::NetworkQuality& good, double strength)
{
    machine::NetworkQuality quality = good;
    quality.loss = strength > 0.8 ? 0.5 : 0.2 * strength;
    quality.duplication = 0.3 * (1 - strength);
    quality.reordering = 0.3 * strength;
    quality.corruption = 0.05 * (1 - strength);
    quality.delay_max = good.delay_max + static_cast<machine::Ticks>(strength * 20) * machine::ticks_per_ms;
    quality.reorder_delay = 30 * machine::ticks_per_ms;
    return quality;
}

}  // namespace

FaultSchedule::FaultSchedule(Workstation& station) : station_(station), patience_(station.world.plan)
{
    station.on_main_left = [this](unsigned lun) {
        if (!patience_.may_leave(lun, ServerName::main, station_.now_ms()))
            fail(fmt::format(
                "LUN {} is read from the slave server, or written only there, at {} ms though the main "
                "server was there",
                lun, station_.now_ms()));
    };
}

void FaultSchedule::prepare_boot()
{
    machine::Faults& faults = station_.machine.faults();
    if (station_.world.plan.local.never_flushes) {
        faults.fail(Operation::disk_flush, {}, 0, machine::Faults::until_cleared);
        weakened_ = true;
    } else if (station_.plan().flush_errors > 0) {
        faults.fail_randomly(Operation::disk_flush, station_.plan().flush_errors);
        weakened_ = true;
    }
    for (const BootFault& fault : station_.plan().boot_faults) {
        station_.world.coverage.add(fmt::format("fault at boot: {}", campaign::name_of(fault.kind)));
        weakened_ = true;
        switch (fault.kind) {
        case BootFault::Kind::allocation:
            faults.fail(Operation::pool_allocate, "QRNM", fault.skip, fault.count);
            break;
        case BootFault::Kind::thread:
            faults.fail(Operation::thread_create, {}, fault.skip, fault.count);
            break;
        case BootFault::Kind::pages:
            faults.fail(fault.count == 1 ? Operation::pages_allocate_short : Operation::pages_allocate, {},
                        fault.skip - 2, fault.count);
            break;
        case BootFault::Kind::registry:
            patience_.settings_unread();
            faults.fail(Operation::registry_query, {}, fault.skip - 2, fault.count);
            break;
        case BootFault::Kind::local_read:
            local_fault_ms_ = 0;
            faults.fail(Operation::disk_read, {}, fault.skip - 2, fault.count);
            break;
        }
    }
}

std::int64_t FaultSchedule::next_event_ms() const
{
    const auto& faults = station_.plan().faults;
    std::int64_t next_ms = next_ < faults.size() ? faults[next_].at_ms : INT64_MAX;
    for (const Active& active : active_)
        next_ms = std::min(next_ms, active.end_ms);
    return next_ms;
}

void FaultSchedule::run_until(std::int64_t end_ms)
{
    if (origin_ms_ < 0)
        origin_ms_ = station_.now_ms();
    for (;;) {
        const std::int64_t now_ms = station_.now_ms() - origin_ms_;
        for (std::size_t i = 0; i < active_.size();) {
            if (active_[i].end_ms > now_ms) {
                ++i;
                continue;
            }
            const Fault over = active_[i].fault;
            active_.erase(active_.begin() + static_cast<std::ptrdiff_t>(i));
            end(over);
        }
        const auto& faults = station_.plan().faults;
        for (; next_ < faults.size() && faults[next_].at_ms <= now_ms; ++next_) {
            begin(faults[next_]);
            active_.push_back({faults[next_], now_ms + faults[next_].for_ms});
        }
        if (now_ms >= end_ms)
            return;
        station_.machine.sleep_ms(std::max<std::int64_t>(1, std::min(end_ms, next_event_ms()) - now_ms));
    }
}

void FaultSchedule::begin(const Fault& fault)
{
    World& world = station_.world;
    world.coverage.add(fmt::format("fault: {}", campaign::name_of(fault.kind)));
    remember(fault);
    switch (fault.kind) {
    case FaultKind::network:
        station_.network.set_quality(bad_quality(world.plan.network, fault.strength));
        break;
    case FaultKind::main_crash:
    case FaultKind::main_crash_losing:
        crash(world.main, fault.kind == FaultKind::main_crash_losing, fault.strength);
        break;
    case FaultKind::slave_crash:
        crash(world.slave, fault.strength < 0.3, fault.strength);
        break;
    case FaultKind::main_partition:
    case FaultKind::slave_partition:
        station_.network.partition(
            (fault.kind == FaultKind::main_partition ? world.main : world.slave).address(), true);
        break;
    case FaultKind::retry_limit:
        patience_.retry_limit(station_.now_ms());
        for (unsigned lun = 0; lun < world.plan.disks.size() && world.main.running(); ++lun)
            world.main.protocol().send_retry_limit(lun);
        break;
    case FaultKind::store_error: {
        const StoreError error = store_error_of(fault, world.plan.disks.size());
        world.main.store(error.lun).set_failing(error.reads, error.writes);
        break;
    }
    case FaultKind::allocation:
    case FaultKind::mapping:
    case FaultKind::pool_runs_out:
    case FaultKind::windows_run_out:
        begin_machine_fault(fault);
        break;
    default:
        begin_local_fault(fault);
        break;
    }
}

void FaultSchedule::remember(const Fault& fault)
{
    const std::int64_t begin_ms = station_.now_ms(), end_ms = begin_ms + fault.for_ms;
    if (fault.kind == FaultKind::retry_limit)
        main_lost();
    if (fault.kind == FaultKind::store_error) {
        const unsigned lun = store_error_of(fault, station_.world.plan.disks.size()).lun;
        patience_.away(ServerName::main, begin_ms, end_ms, lun);
        if (lun == 0)
            main_lost();
    }
    if (fault.kind == FaultKind::network)
        patience_.bad_network(begin_ms, end_ms);
    else if (fault.kind >= FaultKind::main_crash && fault.kind <= FaultKind::main_partition)
        patience_.away(ServerName::main, begin_ms, end_ms), main_lost();
    else if (fault.kind == FaultKind::slave_crash || fault.kind == FaultKind::slave_partition)
        patience_.away(ServerName::slave, begin_ms, end_ms);
}

void FaultSchedule::main_lost()
{
    if (on_main_lost)
        std::exchange(on_main_lost, nullptr)();
}

void FaultSchedule::begin_machine_fault(const Fault& fault)
{
    machine::Faults& faults = station_.machine.faults();
    weakened_ = true;
    const auto some_more = static_cast<unsigned>(fault.strength * 6);
    if (fault.kind == FaultKind::pool_runs_out)
        return faults.fail(Operation::pool_allocate, {}, some_more, machine::Faults::until_cleared);
    if (fault.kind == FaultKind::windows_run_out) {
        faults.fail(Operation::pages_map, {}, some_more, machine::Faults::until_cleared);
        return faults.fail(Operation::map_io_space, {}, some_more, machine::Faults::until_cleared);
    }
    if (fault.kind == FaultKind::allocation)
        return faults.fail_randomly(Operation::pool_allocate, fault.strength);
    faults.fail_randomly(Operation::pages_map, 0.2 * fault.strength);
    faults.fail_randomly(Operation::map_io_space, 0.2 * fault.strength);
}

void FaultSchedule::begin_local_fault(const Fault& fault)
{
    machine::Faults& faults = station_.machine.faults();
    weakened_ = true;
    local_fault_ms_ = std::min(local_fault_ms_, station_.now_ms());
    const double probability = 0.3 * fault.strength;
    if (fault.kind == FaultKind::local_request) {
        faults.fail_randomly(Operation::irp_allocate, probability, "IoBuildSynchronousFsdRequest");
    } else if (fault.kind == FaultKind::local_error) {
        faults.fail_randomly(Operation::disk_read, probability);
        faults.fail_randomly(Operation::disk_write, probability);
    } else if (fault.kind == FaultKind::local_short) {
        faults.fail_randomly(Operation::disk_read_short, probability);
        faults.fail_randomly(Operation::disk_write_short, probability);
    } else {
        machine::LocalDisk& disk = *station_.world.local;
        disk.set_bad(static_cast<std::uint64_t>(fault.strength * static_cast<double>(disk.sectors())),
                     bad_sectors);
    }
}

void FaultSchedule::end(const Fault& fault)
{
    World& world = station_.world;
    machine::Faults& faults = station_.machine.faults();
    switch (fault.kind) {
    case FaultKind::network:
        station_.network.set_quality(world.plan.network);
        break;
    case FaultKind::main_crash:
    case FaultKind::main_crash_losing:
        if (!world.main.running())
            world.main.start();
        break;
    case FaultKind::slave_crash:
        if (!world.slave.running())
            world.slave.start();
        break;
    case FaultKind::main_partition:
        station_.network.partition(world.main.address(), false);
        break;
    case FaultKind::slave_partition:
        station_.network.partition(world.slave.address(), false);
        break;
    case FaultKind::store_error:
        world.main.store(store_error_of(fault, world.plan.disks.size()).lun).set_failing(false, false);
        break;
    case FaultKind::allocation:
    case FaultKind::pool_runs_out:
        faults.clear(Operation::pool_allocate);
        break;
    case FaultKind::mapping:
    case FaultKind::windows_run_out:
        faults.clear(Operation::pages_map);
        faults.clear(Operation::map_io_space);
        break;
    case FaultKind::local_request:
        faults.clear(Operation::irp_allocate);
        break;
    case FaultKind::local_error:
        faults.clear(Operation::disk_read);
        faults.clear(Operation::disk_write);
        break;
    case FaultKind::local_short:
        faults.clear(Operation::disk_read_short);
        faults.clear(Operation::disk_write_short);
        break;
    default:
        break;
    }
}

// A server is away for longer than packets live in the network.
void FaultSchedule::crash(BlockServer& server, bool losing, double strength)
{
    if (!server.running())
        return;
    for (unsigned lun = 0; lun < station_.world.plan.disks.size(); ++lun) {
        const server::DiskCounters& counters = server.protocol().counters(lun);
        station_.world.coverage.add("server: writes that came again", counters.repeated_writes);
    }
    server.stop();
    if (losing)
        lose_writes(server, strength);
}

void FaultSchedule::lose_writes(BlockServer& server, double strength)
{
    World& world = station_.world;
    for (unsigned lun = 0; lun < world.plan.disks.size(); ++lun) {
        JournaledStore& store = server.store(lun);
        const auto count = static_cast<unsigned>(strength * store.unflushed());
        world.coverage.add("server: writes lost in a crash", count);
        store.lose_writes(count, [&](std::uint64_t offset, std::uint64_t bytes) {
            const auto first = static_cast<std::uint32_t>(offset / formats::sector_bytes);
            for (std::uint32_t i = 0; i < bytes / formats::sector_bytes; ++i)
                world.models[lun].may_hold(first + i, world.stored_generation(server, {lun, first + i}),
                                           world.plan.disks[lun].mirrored);
        });
    }
}

void FaultSchedule::heal()
{
    World& world = station_.world;
    for (const Active& active : active_)
        end(active.fault);
    active_.clear();
    next_ = station_.plan().faults.size();
    patience_.all_well(station_.now_ms());
    station_.machine.faults().clear();
    if (world.plan.local.never_flushes)
        station_.machine.faults().fail(Operation::disk_flush, {}, 0, machine::Faults::until_cleared);
    machine::NetworkQuality quality = world.plan.network;
    quality.loss = 0;
    station_.network.set_quality(quality);
    if (world.local)
        world.local->set_bad(0, world.local->sectors(), false);
}

bool FaultSchedule::may_fail(unsigned lun, bool write_waits, std::int64_t since_ms)
{
    const std::int64_t now_ms = station_.now_ms();
    if (station_.world.plan.boots_locally() && local_fault_ms_ <= now_ms)
        return true;
    if (shutdown_ && patience_.may_end_in_shutdown(lun, shutdown_ms_, now_ms))
        return true;
    return patience_.may_fail(lun, write_waits, since_ms, now_ms);
}

void FaultSchedule::shutdown_begins()
{
    shutdown_ = true;
    main_lost();
    shutdown_ms_ = station_.now_ms();
}

void FaultSchedule::servers_away(std::int64_t begin_ms, std::int64_t end_ms)
{
    patience_.away(ServerName::main, begin_ms, end_ms);
    patience_.away(ServerName::slave, begin_ms, end_ms);
}

Kept FaultSchedule::kept(unsigned lun) const
{
    const std::int64_t now_ms = station_.now_ms();
    if (station_.left_main(lun))
        return Kept::slave;
    // A shutdown has less patience than a running system.
    const auto left = [&](ServerName server) {
        return patience_.may_leave(lun, server, now_ms) ||
               (shutdown_ && patience_.may_miss(lun, server, shutdown_ms_, now_ms));
    };
    const bool main_left = left(ServerName::main), slave_left = left(ServerName::slave);
    if (main_left)
        return slave_left ? Kept::either : Kept::slave;
    return slave_left ? Kept::main : Kept::both;
}

}  // namespace campaign
