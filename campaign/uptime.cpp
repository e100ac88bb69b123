// SPDX-License-Identifier: MIT
#include "campaign/uptime.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "campaign/streams.h"
#include "machine/executive/semaphore_counts.h"

namespace campaign {
namespace {

constexpr std::int64_t hour_ms = 3'600'000;
constexpr std::int64_t busy_ms = 120'000;   // of every hour
constexpr std::int64_t quiet_ms = 420'000;  // from here on nothing may be under way
constexpr unsigned operations_per_hour = 120;
// Until then disks set up what they keep.
constexpr unsigned first_hours = 3;
constexpr unsigned measured_hours = 6;

struct Levels {
    std::uint64_t pool_bytes;
    std::size_t windows;
    unsigned unreleased;
};

Levels levels_of(Workstation& station)
{
    return {station.machine.pool_bytes(), station.machine.memory().windows(),
            station.machine.transport()->unreleased()};
}

Fault draw_ordinary_fault(Stream& stream, const Plan& plan, std::int64_t hour_begins_ms)
{
    constexpr FaultKind kinds[] = {FaultKind::network,     FaultKind::network,
                                   FaultKind::main_crash,  FaultKind::main_partition,
                                   FaultKind::slave_crash, FaultKind::slave_partition};
    Fault fault{.kind = stream.one_of(kinds),
                .at_ms = hour_begins_ms + stream.below(busy_ms),
                .for_ms = stream.between(100, 8'000),
                .strength = 0.3 + 0.7 * stream.fraction()};
    if (!plan.mirrored() && fault.kind >= FaultKind::slave_crash)
        fault.kind = FaultKind::network;
    return fault;
}

// What was released to semaphores and not taken would add up from hour to hour.
class Semaphores {
public:
    void hour_ends(unsigned hour)
    {
        const std::int32_t highest = machine::take_highest_semaphore_count();
        if (hour <= measured_hours)
            most_ = std::max(most_, highest);
        else if (highest > 2 * most_ + slack)
            fail(fmt::format("a semaphore counts {} in hour {}, and at most {} in the first", highest, hour,
                             most_));
    }

private:
    static constexpr std::int32_t slack = 16;
    std::int32_t most_ = 0;
};

void expect_no_growth(Workstation& station, const Levels& first, unsigned hour)
{
    const Levels now = levels_of(station);
    if (station.scsi().in_flight() != 0)
        fail(fmt::format("{} requests are in flight in the quiet of hour {}", station.scsi().in_flight(),
                         hour));
    if (now.pool_bytes > first.pool_bytes)
        fail(fmt::format("the pool grew from {} to {} bytes in {} hours", first.pool_bytes, now.pool_bytes,
                         hour));
    if (now.windows > first.windows && !std::ranges::any_of(station.world.plan.disks, &DiskPlan::ram_cache))
        fail(
            fmt::format("{} windows are open after {} hours, {} at first", now.windows, hour, first.windows));
    if (now.unreleased > 1)
        fail(fmt::format("{} received packets were not given back after {} hours", now.unreleased, hour));
    station.world.coverage.add("uptime: hours without growth");
}

}  // namespace

void shape_for_uptime(Plan& plan, unsigned hours)
{
    constexpr unsigned clients_most = 3;
    Stream stream(plan.seed, "uptime");
    StartPlan start{};
    start.end = End::checked;
    start.safety_ms = hours * hour_ms;
    for (unsigned hour = 0; hour < hours; ++hour) {
        if (stream.chance(0.7))
            start.faults.push_back(draw_ordinary_fault(stream, plan, hour * hour_ms));
        if (stream.chance(0.03))
            start.port_events.push_back(
                {.kind = stream.chance(0.5) ? PortEventKind::bus_reset : PortEventKind::scan,
                 .at_ms = hour * hour_ms + stream.below(busy_ms)});
    }
    plan.starts = {start};
    plan.uptime_hours = hours;
    plan.load.operations = operations_per_hour;
    plan.load.clients_per_lun = std::min(plan.load.clients_per_lun, clients_most);
}

std::int64_t off_before_uptime_ms(unsigned hours)
{
    return (std::int64_t{1} << 32) - hours * hour_ms / 2;
}

void live_for_hours(Workstation& station, Load& load, FaultSchedule& faults)
{
    std::optional<Levels> first;
    Semaphores semaphores;
    for (unsigned lun = 0; lun < station.world.plan.disks.size(); ++lun)
        load.read_all(lun);
    for (unsigned hour = 1; hour <= station.world.plan.uptime_hours; ++hour) {
        const std::int64_t begin_ms = (hour - 1) * hour_ms;
        load.start(busy_ms);
        faults.run_until(begin_ms + busy_ms);
        load.stop();
        faults.run_until(begin_ms + quiet_ms);
        if (load.active() != 0)
            fail(fmt::format("requests still wait in the quiet of hour {}: {}", hour, load.waiting()));
        semaphores.hour_ends(hour);
        if (hour == first_hours)
            first = levels_of(station);
        else if (first)
            expect_no_growth(station, *first, hour);
        faults.run_until(hour * hour_ms);
    }
}

}  // namespace campaign
