// SPDX-License-Identifier: MIT
#include "campaign/seed_run.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "campaign/checks.h"
#include "campaign/port_events.h"
#include "campaign/settle.h"
#include "campaign/streams.h"
#include "campaign/uptime.h"

namespace campaign {
namespace {

using machine::Outcome;

constexpr std::int64_t shutdown_bound_ms = 60'000;

// The driver may reset the machine, or stop it where that fails, when the system disk's server is away while
// the system goes down.
void expect_outcome(World& world, Outcome outcome, const FaultSchedule& faults)
{
    if (outcome == Outcome::finished)
        return;
    if (outcome == Outcome::stalled)
        fail("nothing can ever happen any more");
    if (!faults.shutdown_may_reset())
        fail(outcome == Outcome::reset ? "the driver reset the machine" : "the driver stopped the machine");
    world.coverage.add(outcome == Outcome::reset ? "machine reset by the driver"
                                                 : "machine stopped by the driver");
}

// While a server is away every chunk that is queued already tries to reach it.
void shut_down(Workstation& station, FaultSchedule& faults)
{
    faults.shutdown_begins();
    const std::int64_t begin_ms = station.now_ms();
    if (station.plan().shutdown_order.empty())
        station.scsi().shutdown();
    else
        station.scsi().shutdown(station.plan().shutdown_order);
    if (faults.over() && station.now_ms() - begin_ms > shutdown_bound_ms)
        fail(fmt::format("shutdown took {} ms", station.now_ms() - begin_ms));
}

// Has blocks in use that no window shows, before the faults come.
void fill_wide_caches(Workstation& station, Load& load)
{
    const auto& disks = station.world.plan.disks;
    for (unsigned lun = 0; lun < disks.size(); ++lun)
        if (disks[lun].wide())
            load.read_all(lun);
}

void live(Workstation& station, Load& load, FaultSchedule& faults)
{
    station.boot();
    fill_wide_caches(station, load);
    PortEvents port_events(station);
    port_events.start();
    if (station.world.plan.uptime_hours != 0) {
        live_for_hours(station, load, faults);
    } else {
        load.start(station.plan().safety_ms);
        faults.run_until(station.plan().safety_ms);
    }
    if (station.plan().end == End::power_off)
        return;
    if (station.plan().end == End::shutdown)
        return shut_down(station, faults);
    faults.heal();
    port_events.wait();
    expect_all_complete(station, load);
    expect_requests_succeed(station, load);
    expect_slots_back(station, load, faults);
    expect_contents(station, load);
    expect_poll_totals(station, load);
    shut_down(station, faults);
}

const char* name_of(End end)
{
    return end == End::checked ? "end: checked" : end == End::power_off ? "end: power off" : "end: shutdown";
}

// Which servers the mirrored disks still have.
std::vector<Kept> run_start(World& world, unsigned number, machine::DriverImage& driver, std::int64_t off_ms,
                            const std::function<void()>& on_main_lost)
{
    Workstation station(world, number, driver, off_ms);
    FaultSchedule faults(station);
    faults.on_main_lost = on_main_lost;
    faults.prepare_boot();
    std::optional<Load> load;
    const Outcome outcome = station.machine.run([&] {
        load.emplace(station, faults);
        live(station, *load, faults);
    });
    expect_outcome(world, outcome, faults);
    world.coverage.add(name_of(station.plan().end));
    station.count_events();
    std::vector<Kept> kept;
    for (unsigned lun = 0; lun < world.plan.disks.size(); ++lun)
        kept.push_back(faults.kept(lun));
    return kept;
}

// Long enough for a request to be given up, so that the local image is all there is.
bool may_lose_server(const StartPlan& start)
{
    constexpr std::int64_t patience_ms = 40'000;
    std::int64_t away_ms = 0;
    for (const Fault& fault : start.faults) {
        if (fault.kind == FaultKind::retry_limit)
            return true;
        if ((fault.kind >= FaultKind::main_crash && fault.kind <= FaultKind::main_partition) ||
            fault.kind == FaultKind::store_error)
            away_ms += fault.for_ms;
    }
    return start.end == End::shutdown || away_ms >= patience_ms;
}

void power_cut(World& world, unsigned number)
{
    const machine::LocalDiskCounters counters = world.local->counters();
    if (number == world.plan.starts.size()) {
        world.coverage.add("local disk: read errors", counters.read_errors);
        world.coverage.add("local disk: write errors", counters.write_errors);
    }
    Stream stream(world.plan.seed, "power cut", number);
    world.local->power_cut(stream);
    world.coverage.add("local disk: power cuts");
}

void count_servers(World& world)
{
    for (BlockServer* server : {&world.main, &world.slave})
        for (unsigned lun = 0; lun < world.plan.disks.size(); ++lun) {
            const server::DiskCounters counters = server->counters(lun);
            world.coverage.add("server: writes that came again", counters.repeated_writes);
            world.coverage.add("server: fragments missing reported", counters.acknowledgements);
            world.coverage.add("server: answers of zeros", counters.zero_answers);
            world.coverage.add("server: status queries", counters.status_queries);
            world.coverage.add("server: parts of the image read", counters.sync_reads);
            world.coverage.add("server: store errors", server->store(lun).errors());
        }
}

}  // namespace

void run_seed(std::uint64_t seed, const Options& options)
{
    Plan plan = draw_plan(seed);
    if (options.plain_atomics)
        plan.switch_at_atomics = false;
    if (options.uptime_days != 0)
        shape_for_uptime(plan, static_cast<unsigned>(options.uptime_days * 24));
    World world(std::move(plan), options.canary);
    if (!options.capture.empty())
        world.capture = std::make_unique<machine::PacketCapture>(options.capture);
    std::printf("%s", to_text(world.plan).c_str());
    std::fflush(stdout);
    machine::set_violation_handler([](const std::string& message) { fail("rule broken: " + message); });
    const auto driver = machine::driver_named(options.driver);
    std::optional<ImageVersions> images;
    if (world.plan.boots_locally())
        images.emplace(world);
    Stream pauses(seed, "pauses");
    for (unsigned number = 1; number <= world.plan.starts.size(); ++number) {
        std::function<void()> on_main_lost;
        if (images) {
            images->publish(world.plan.starts[number - 1], number);
            if (may_lose_server(world.plan.starts[number - 1]))
                on_main_lost = [&images] { images->allow_older(); };
        }
        // Servers rely on a restart taking longer than what they remember of writes.
        const std::int64_t off_ms = world.plan.uptime_hours != 0
                                        ? off_before_uptime_ms(world.plan.uptime_hours)
                                        : pauses.between(6'000, 60'000);
        const auto kept = run_start(world, number, *driver, off_ms, on_main_lost);
        settle_servers(world, kept);
        if (images) {
            power_cut(world, number);
            images->verify_local();
        }
        std::printf("start %u ended, events %016llx\n", number,
                    static_cast<unsigned long long>(world.events.value()));
    }
    count_servers(world);
    std::printf("%ssimulated: %.3f\nevents: %016llx\n", world.coverage.to_lines().c_str(), world.simulated_s,
                static_cast<unsigned long long>(world.events.value()));
    std::fflush(stdout);
}

}  // namespace campaign
