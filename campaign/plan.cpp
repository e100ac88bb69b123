// SPDX-License-Identifier: MIT
#include "campaign/plan.h"

#include <algorithm>

#include "campaign/streams.h"
#include "formats/boot_block.h"
#include "formats/image_area.h"

namespace campaign {
namespace {

using machine::ticks_per_ms;
using machine::ticks_per_us;

constexpr std::uint64_t mb = 1u << 20, gb = 1u << 30;
constexpr std::uint32_t small_disk_max = 6000, cached_disk_min = 16384, cached_disk_max = 40000;
constexpr std::uint32_t wide_disk_min = 70000, wide_disk_max = 90000;

std::uint8_t draw_flags(Stream& stream, bool system_disk)
{
    unsigned flags = stream.between(1, 8);
    if (stream.chance(0.3))
        flags |= formats::disk_flag_split_writes;
    if (stream.chance(0.2))
        flags |= formats::disk_flag_one_slot;
    if (stream.chance(0.35))
        flags |= formats::disk_flag_ram_cache;
    if (!system_disk && stream.chance(0.1))
        flags |= formats::disk_flag_delay_load;
    return stream.chance(0.05) ? std::uint8_t{0} : static_cast<std::uint8_t>(flags);
}

DiskPlan draw_disk(Stream& stream, bool system_disk)
{
    DiskPlan disk{};
    disk.flags = draw_flags(stream, system_disk);
    disk.read_kb = stream.between(1, 16);
    disk.write_kb = stream.between(1, 16);
    disk.retry_mins = static_cast<std::uint8_t>(stream.chance(0.1) ? 0 : stream.between(1, 2));
    disk.mirrored = stream.chance(0.3);
    const bool cached = (disk.flags & formats::disk_flag_ram_cache) != 0;
    disk.cache_mb = cached && stream.chance(0.9) ? stream.between(4, 16) : 0;
    if (cached && stream.chance(0.5))
        disk.cache_mb = 4;
    disk.sectors = disk.ram_cache() ? stream.between(cached_disk_min, cached_disk_max)
                                    : stream.between(600, small_disk_max);
    disk.zeros = stream.chance(0.5);
    return disk;
}

// Gives a cached disk more blocks than all windows show at once. Whether there is such a disk.
bool widen(Stream& stream, std::vector<DiskPlan>& disks)
{
    const auto cached = std::ranges::find_if(disks, &DiskPlan::ram_cache);
    if (cached == disks.end() || !stream.chance(0.1))
        return false;
    cached->cache_mb = stream.between(40, 64);
    cached->sectors = stream.between(wide_disk_min, wide_disk_max);
    return true;
}

MemoryPlan draw_memory(Stream& stream)
{
    constexpr std::uint64_t sizes[] = {128 * mb, 512 * mb, gb, 3 * gb};
    MemoryPlan memory{};
    const std::uint64_t size = stream.one_of(sizes);
    memory.ranges = {{mb, size}};
    if (stream.chance(0.3))
        memory.ranges = {{mb, 15 * mb}, {17 * mb, size}};
    if (stream.chance(0.2))
        memory.ranges.push_back({4 * gb, gb});
    else if (stream.chance(0.4))
        memory.above_4g_bytes = stream.between(8, 256) * 4 * mb;
    memory.mm64bit = stream.chance(0.1);
    memory.system_ptes = stream.chance(0.2) ? stream.between(6, 40) * (mb / machine::page_bytes) : 0;
    return memory;
}

// What is short in the kernel's own rooms. A window of a cache and one on conventional memory always fit.
void draw_shortages(Stream& stream, MemoryPlan& memory)
{
    constexpr std::uint32_t one_window = 5 * mb / machine::page_bytes;
    if (memory.system_ptes != 0 && stream.chance(0.5))
        memory.largest_pte_run = stream.between(one_window, memory.system_ptes);
    else
        memory.largest_pte_run = memory.system_ptes;
    if (stream.chance(0.15))
        memory.nonpaged_pool_bytes_max = stream.between(1, 4) * mb;
    memory.garbage_above_4g = stream.chance(0.9);
}

std::map<std::string, std::uint32_t> draw_settings(Stream& stream)
{
    std::map<std::string, std::uint32_t> settings;
    if (stream.chance(0.6))
        settings["RW_THREADS"] = stream.between(1, 8);
    if (stream.chance(0.3))
        settings["TRANS_SIZE"] = stream.between(1, 64);
    constexpr std::uint32_t hot_retrys[] = {0, 0, 1, 1, 2, 3, 10, 25};
    if (stream.chance(0.7))
        settings["HOT_RETRYS"] = stream.one_of(hot_retrys);
    if (stream.chance(0.5))
        settings["PAE_SIZE"] = stream.between(0, 2) * 64;
    if (stream.chance(0.1))
        settings["RW_RACK"] = stream.between(0x700, 0x70A);
    return settings;
}

LocalPlan draw_local(Stream& stream, const DiskPlan& system_disk, std::size_t disks)
{
    // What a copy of the whole disk takes, with its map.
    const std::uint32_t whole = (system_disk.sectors / formats::chunk_sectors + 2) * 129 + 64;
    LocalPlan local{};
    local.system_sectors = stream.chance(0.8) ? whole + 512 : stream.between(64, whole);
    const auto blocks = static_cast<std::uint32_t>(disks) * 24;
    local.temporary_sectors = stream.chance(0.8) ? stream.between(200, blocks * formats::chunk_sectors) : 0;
    local.options.latency_max = stream.chance(0.7) ? stream.between(1, 20) * ticks_per_ms : 0;
    local.options.latency_min = local.options.latency_max / 10;
    local.options.volatile_max = stream.chance(0.6) ? stream.between(10, 5000) * ticks_per_ms : 0;
    local.options.seed = stream.next();
    local.synchronise = stream.chance(0.85);
    return local;
}

machine::NetworkQuality draw_network(Stream& stream)
{
    constexpr double losses[] = {0, 0, 0.001, 0.01};
    machine::NetworkQuality quality;
    quality.delay_min = stream.between(20, 300) * ticks_per_us;
    quality.delay_max = quality.delay_min + stream.between(0, 2000) * ticks_per_us;
    quality.loss = stream.one_of(losses);
    return quality;
}

void draw_processors(Stream& stream, Plan& plan)
{
    constexpr machine::Ticks ticks[] = {0, 10 * ticks_per_ms, 156'250};
    plan.processors = stream.chance(0.4) ? 1 : 2;
    plan.clock_tick_100ns = stream.one_of(ticks);
    plan.switch_at_atomics = stream.chance(0.5);
}

LoadPlan draw_load(Stream& stream, bool wide)
{
    if (wide)  // enough to use the blocks behind the last window
        return {.clients_per_lun = 5,
                .operations = 500,
                .writes = 0.5,
                .large = 0.3,
                .hot = 0,
                .overlapping = false};
    return {.clients_per_lun = stream.between(1, 5),
            .operations = stream.between(60, 500),
            .writes = 0.2 + stream.fraction() * 0.6,
            .large = stream.fraction() * 0.4,
            .hot = stream.fraction(),
            .overlapping = stream.chance(0.5)};
}

// How long a fault lasts: mostly so short that nothing may fail, at times longer than any patience.
std::int64_t draw_length_ms(Stream& stream, FaultKind kind)
{
    const bool away = kind >= FaultKind::main_crash && kind <= FaultKind::slave_partition;
    if (away && stream.chance(0.25))
        return stream.between(20'000, 150'000);
    return away ? stream.between(100, 15'000) : stream.between(50, 5'000);
}

Fault draw_fault(Stream& stream, const Plan& plan, std::int64_t safety_ms)
{
    const auto first_local = static_cast<unsigned>(FaultKind::local_request);
    const auto kinds = plan.boots_locally() ? static_cast<unsigned>(FaultKind::pool_runs_out) : first_local;
    auto kind = static_cast<FaultKind>(stream.below(kinds));
    const bool of_slave = kind == FaultKind::slave_crash || kind == FaultKind::slave_partition;
    if (of_slave && !plan.mirrored())
        kind = FaultKind::network;
    if (kind == FaultKind::retry_limit && stream.chance(0.7))
        kind = FaultKind::network;
    return {.kind = kind,
            .at_ms = stream.below(static_cast<std::uint32_t>(safety_ms)),
            .for_ms = draw_length_ms(stream, kind),
            .strength = stream.fraction()};
}

// Memory and windows that run short in the middle.
void draw_running_short(Stream& stream, StartPlan& start)
{
    if (!stream.chance(0.2))
        return;
    start.faults.push_back(
        {.kind = stream.chance(0.5) ? FaultKind::pool_runs_out : FaultKind::windows_run_out,
         .at_ms = stream.below(static_cast<std::uint32_t>(start.safety_ms / 2)),
         .for_ms = stream.between(50, 5000),
         .strength = stream.fraction()});
    std::ranges::stable_sort(start.faults, {}, &Fault::at_ms);
}

// A disk of the server that goes bad, or is full, for a while.
void draw_store_errors(Stream stream, StartPlan& start)
{
    if (!stream.chance(0.15))
        return;
    for (unsigned count = stream.between(1, 2); count != 0; --count)
        start.faults.push_back(
            {.kind = FaultKind::store_error,
             .at_ms = stream.below(static_cast<std::uint32_t>(start.safety_ms)),
             .for_ms = stream.chance(0.3) ? stream.between(20'000, 150'000) : stream.between(100, 15'000),
             .strength = stream.fraction()});
    std::ranges::stable_sort(start.faults, {}, &Fault::at_ms);
}

// Disks of which a part far out is used: around a place where 64 MB end, or up to sector 2^31 - 1.
void move_out(Stream stream, Plan& plan)
{
    constexpr std::uint32_t sectors_of_64_mb = 1u << 17, end = 0x7FFFFFFF;
    for (std::size_t lun = plan.boots_locally() ? 1 : 0; lun < plan.disks.size(); ++lun) {
        DiskPlan& disk = plan.disks[lun];
        if (!stream.chance(0.12))
            continue;
        if (stream.chance(0.5))
            disk.first_lba = end - disk.sectors - stream.below(300);
        else
            disk.first_lba = stream.between(1, 16'000) * sectors_of_64_mb - disk.sectors / 2;
    }
}

BootFault draw_boot_fault(Stream& stream)
{
    constexpr BootFault::Kind kinds[] = {BootFault::Kind::allocation, BootFault::Kind::thread,
                                         BootFault::Kind::pages, BootFault::Kind::registry,
                                         BootFault::Kind::local_read};
    const BootFault::Kind kind = stream.one_of(kinds);
    // Without its first worker and its receiver a workstation has no disks at all.
    return {.kind = kind, .skip = stream.between(2, 10), .count = stream.between(1, 3)};
}

// Shortly before the end of the start and beyond, so that the shutdown cannot wait for them.
void silence_servers(Stream& stream, const Plan& plan, StartPlan& start)
{
    Fault fault{.kind = FaultKind::main_partition,
                .at_ms = start.safety_ms - stream.between(0, 1500),
                .for_ms = 300'000,
                .strength = 0};
    start.faults.push_back(fault);
    fault.kind = FaultKind::slave_partition;
    if (plan.mirrored())
        start.faults.push_back(fault);
}

// The power goes again and again while a local image is filled, on a disk that keeps nothing by itself.
void add_short_starts(Stream& stream, Plan& plan)
{
    constexpr machine::Ticks longer_than_any_start = 3600 * machine::ticks_per_second;
    plan.local.synchronise = true;
    plan.local.options.volatile_min = plan.local.options.volatile_max = longer_than_any_start;
    plan.load.clients_per_lun = std::min(plan.load.clients_per_lun, 3u);
    std::vector<StartPlan> starts;
    for (unsigned count = stream.between(3, 7); count != 0; --count) {
        StartPlan start{};
        start.safety_ms = stream.between(5, 60) * std::int64_t{1 << stream.between(0, 7)};
        start.end = stream.chance(0.8) ? End::power_off : End::shutdown;
        start.new_image = stream.chance(0.3);
        start.synchronise_at_once = true;
        start.flush_errors = stream.chance(0.2) ? 0.5 * stream.fraction() : 0;
        starts.push_back(start);
    }
    plan.starts.insert(plan.starts.begin(), starts.begin(), starts.end());
}

void draw_image_change(Stream& stream, StartPlan& start)
{
    if (stream.chance(0.15))
        start.rolled_back = true;
    else if (stream.chance(0.15))
        start.recreated = true;
    start.unshifted = start.recreated && stream.chance(0.4);
}

// Nothing else is wrong, but one server is away for about as long as a disk waits for it, or much longer.
void draw_absence(Stream& stream, const Plan& plan, StartPlan& start)
{
    constexpr FaultKind kinds[] = {FaultKind::main_crash, FaultKind::main_partition, FaultKind::slave_crash,
                                   FaultKind::slave_partition};
    if (!stream.chance(0.2))
        return;
    Fault fault{.kind = stream.one_of(kinds),
                .at_ms = stream.between(500, 5'000),
                .for_ms = stream.between(50, 180) * std::int64_t{1000},
                .strength = 0.5};
    if (!plan.mirrored() && fault.kind >= FaultKind::slave_crash)
        fault.kind = FaultKind::main_partition;
    start.safety_ms = 200'000;
    start.faults = {fault};
    start.boot_faults.clear();
    start.only_reads = stream.chance(0.4);
}

StartPlan draw_start(Stream& stream, const Plan& plan, bool last)
{
    constexpr End ends[] = {End::power_off, End::power_off, End::shutdown};
    constexpr unsigned lengths_s[] = {2, 10, 30, 120};
    StartPlan start{};
    start.safety_ms = std::int64_t{stream.one_of(lengths_s)} * 1000;
    start.end = last ? End::checked : stream.one_of(ends);
    for (unsigned count = stream.between(0, 8); count != 0; --count)
        start.faults.push_back(draw_fault(stream, plan, start.safety_ms));
    if (start.end == End::shutdown && stream.chance(0.3))
        silence_servers(stream, plan, start);
    if (std::ranges::any_of(plan.disks, &DiskPlan::wide) && stream.chance(0.5))
        start.faults.push_back({.kind = FaultKind::mapping,
                                .at_ms = start.safety_ms / 4,
                                .for_ms = start.safety_ms / 2,
                                .strength = stream.fraction()});
    std::ranges::stable_sort(start.faults, {}, &Fault::at_ms);
    if (stream.chance(0.15))
        start.boot_faults.push_back(draw_boot_fault(stream));
    start.new_image = stream.chance(0.5);
    return start;
}

}  // namespace

bool DiskPlan::ram_cache() const
{
    return (flags & formats::disk_flag_ram_cache) != 0 && cache_mb != 0;
}

bool DiskPlan::wide() const
{
    return sectors >= wide_disk_min;
}

StoreError store_error_of(const Fault& fault, std::size_t disks)
{
    const auto drawn = static_cast<unsigned>(fault.strength * 3000);
    const unsigned what = drawn % 3;
    return {.lun = drawn / 3 % static_cast<unsigned>(disks), .reads = what != 0, .writes = what != 1};
}

bool Plan::boots_locally() const
{
    return boot_mode == formats::boot_mode_local_image;
}

bool Plan::mirrored() const
{
    return std::ranges::any_of(disks, &DiskPlan::mirrored);
}

// In a quarter of the starts.
static void draw_port_events(Stream stream, StartPlan& start)
{
    if (!stream.chance(0.25))
        return;
    for (unsigned count = stream.between(1, 4); count != 0; --count)
        start.port_events.push_back(
            {.kind = static_cast<PortEventKind>(stream.below(static_cast<unsigned>(PortEventKind::kinds))),
             .at_ms = stream.below(static_cast<std::uint32_t>(start.safety_ms))});
    std::ranges::stable_sort(start.port_events, {}, &PortEvent::at_ms);
}

// In half of the starts; a class driver takes the disks as they come.
static void draw_shutdown_order(Stream stream, std::size_t disks, StartPlan& start)
{
    if (stream.chance(0.5))
        return;
    for (std::size_t lun = 0; lun < disks; ++lun)
        start.shutdown_order.insert(start.shutdown_order.begin() +
                                        stream.below(static_cast<std::uint32_t>(lun) + 1),
                                    static_cast<std::uint8_t>(lun));
}

Plan draw_plan(std::uint64_t seed)
{
    Stream general(seed, "general"), disks(seed, "disks"), settings(seed, "settings"), memory(seed, "memory"),
        local(seed, "local disk"), network(seed, "network quality"), load(seed, "load"),
        port(seed, "port driver"), shortages(seed, "shortages"), processors(seed, "processors");
    constexpr std::uint32_t modes[] = {0, 0, 0, 0, 0, 7, 7, 7, 7, 1};
    Plan plan{};
    plan.seed = seed;
    plan.boot_mode = general.one_of(modes);
    plan.boot_flags = general.chance(0.5) ? formats::boot_flag_tag_slot : std::uint8_t{0};
    plan.tag_key = static_cast<std::uint32_t>(general.next());
    plan.rack_level = general.chance(0.8) ? std::uint16_t{0x705} : std::uint16_t{0x701};
    plan.through_transport = general.chance(0.3);
    plan.reset_ports_work = general.chance(0.7);
    plan.pae = general.chance(0.5);
    plan.feeding = port.chance(0.5) ? machine::Feeding::held_back : machine::Feeding::eager;
    plan.curious_class_driver = port.chance(0.5);
    plan.scan_stops_at_gap = port.chance(0.5);
    plan.checks_transfers = port.chance(0.5);
    draw_processors(processors, plan);
    for (unsigned count = general.between(1, formats::disk_count_max); count != 0; --count)
        plan.disks.push_back(draw_disk(disks, plan.disks.empty()));
    const bool wide = widen(disks, plan.disks);
    plan.settings = draw_settings(settings);
    plan.memory = draw_memory(memory);
    draw_shortages(shortages, plan.memory);
    if (plan.boots_locally()) {
        plan.through_transport = false;
        plan.local = draw_local(local, plan.disks[0], plan.disks.size());
    }
    Stream late(seed, "late"), odd_disk(seed, "odd local disk");
    if (plan.through_transport && late.chance(0.4))
        plan.transport_late_ms = late.between(1, 20'000);
    plan.local.never_flushes = plan.boots_locally() && odd_disk.chance(0.08);
    move_out(Stream(seed, "far out"), plan);
    plan.network = draw_network(network);
    plan.load = draw_load(load, wide);
    const unsigned starts = general.between(1, 3);
    for (unsigned i = 0; i < starts; ++i) {
        Stream stream(seed, "start", i);
        plan.starts.push_back(draw_start(stream, plan, i + 1 == starts));
        Stream absence(seed, "absence", i);
        draw_absence(absence, plan, plan.starts.back());
        Stream running_short(seed, "running short", i);
        draw_running_short(running_short, plan.starts.back());
        draw_store_errors(Stream(seed, "store errors", i), plan.starts.back());
        draw_port_events(Stream(seed, "port driver's events", i), plan.starts.back());
        draw_shutdown_order(Stream(seed, "order of the shutdown", i), plan.disks.size(), plan.starts.back());
    }
    if (!plan.boots_locally())
        return plan;
    Stream short_starts(seed, "short starts"), changes(seed, "image changes");
    if (short_starts.chance(0.5))
        add_short_starts(short_starts, plan);
    for (StartPlan& start : plan.starts)
        draw_image_change(changes, start);
    return plan;
}

}  // namespace campaign
