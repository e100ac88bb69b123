// SPDX-License-Identifier: MIT
// A plan as lines for the log of a seed.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "campaign/plan.h"

namespace campaign {
namespace {

double ms(machine::Ticks ticks)
{
    return static_cast<double>(ticks) / machine::ticks_per_ms;
}

const char* name_of(End end)
{
    return end == End::checked ? "checked" : end == End::power_off ? "power off" : "shutdown";
}

std::string text_of(const Plan& plan, unsigned lun)
{
    const DiskPlan& disk = plan.disks[lun];
    return fmt::format(
        "disk {}: {} sectors, flags {:02X}, packets {}/{} KB, Retry_Mins {}{}, cache {} MB{}\n", lun,
        disk.sectors, disk.flags, disk.read_kb, disk.write_kb, disk.retry_mins,
        disk.mirrored ? ", mirrored" : "", disk.cache_mb, disk.zeros ? ", zeros" : "");
}

std::string text_of(const Plan& plan, const StartPlan& start)
{
    std::string text =
        fmt::format("start {}: {} ms, ends {}{}{}\n", &start - plan.starts.data() + 1, start.safety_ms,
                    name_of(start.end), start.new_image && plan.boots_locally() ? ", newer image" : "",
                    start.only_reads ? ", only reads" : "");
    if (start.synchronise_at_once)
        text += fmt::format("  synchronises at once, {:.2f} of the flushes fail\n", start.flush_errors);
    if (start.rolled_back || start.recreated)
        text += fmt::format("  the server's image is {}{}\n", start.rolled_back ? "rolled back" : "made anew",
                            start.unshifted ? ", its sectors not shifted" : "");
    if (!start.shutdown_order.empty())
        text += fmt::format("  order of the shutdown: {}\n", fmt::join(start.shutdown_order, ", "));
    for (const PortEvent& event : start.port_events)
        text += fmt::format("  port driver at {} ms: {}\n", event.at_ms, campaign::name_of(event.kind));
    for (const BootFault& fault : start.boot_faults)
        text += fmt::format("  fault at boot: {} after {}, {} times\n", campaign::name_of(fault.kind),
                            fault.skip, fault.count);
    for (const Fault& fault : start.faults)
        text += fmt::format("  fault at {} ms for {} ms: {} {:.3f}\n", fault.at_ms, fault.for_ms,
                            campaign::name_of(fault.kind), fault.strength);
    return text;
}

std::string text_of(const MemoryPlan& memory)
{
    std::string text = "memory:";
    for (const machine::MemoryRange& range : memory.ranges)
        text += fmt::format(" {:X}+{}M", range.base, range.length >> 20);
    if (memory.system_ptes != 0)
        text +=
            fmt::format(", {} page table entries, {} in a row", memory.system_ptes, memory.largest_pte_run);
    if (memory.nonpaged_pool_bytes_max != 0)
        text += fmt::format(", pool of {}M", memory.nonpaged_pool_bytes_max >> 20);
    return text + fmt::format(", unmanaged above 4 GB {}M{}{}\n", memory.above_4g_bytes >> 20,
                              memory.garbage_above_4g ? " with garbage" : "",
                              memory.mm64bit ? ", 64-bit addresses" : "");
}

}  // namespace

const char* name_of(FaultKind kind)
{
    constexpr const char* names[] = {"network",           "main crash",    "main crash losing writes",
                                     "main partition",    "slave crash",   "slave partition",
                                     "retry limit",       "allocation",    "mapping",
                                     "local request",     "local error",   "local short",
                                     "local bad sectors", "pool runs out", "windows run out",
                                     "store error"};
    static_assert(std::size(names) == static_cast<unsigned>(FaultKind::kinds));
    return names[static_cast<unsigned>(kind)];
}

const char* name_of(PortEventKind kind)
{
    constexpr const char* names[] = {"bus reset", "start again", "scan", "transfer without a buffer"};
    static_assert(std::size(names) == static_cast<unsigned>(PortEventKind::kinds));
    return names[static_cast<unsigned>(kind)];
}

const char* name_of(BootFault::Kind kind)
{
    constexpr const char* names[] = {"allocation", "thread", "pages", "registry", "local read"};
    return names[static_cast<unsigned>(kind)];
}

std::string to_text(const Plan& plan)
{
    std::string text =
        fmt::format("seed {}: boot mode {}, flags {:02X}, tag key {:08X}, level {:04X}, {}{}{}{}{}\n",
                    plan.seed, plan.boot_mode, plan.boot_flags, plan.tag_key, plan.rack_level,
                    plan.through_transport ? "block from transport" : "block in low memory",
                    plan.pae ? ", long addresses" : "", plan.reset_ports_work ? "" : ", reset ports dead",
                    plan.feeding == machine::Feeding::held_back ? ", fed one at a time" : "",
                    plan.curious_class_driver ? ", curious class driver" : "");
    if (plan.transport_late_ms != 0)
        text += fmt::format("the transport finds its servers after {} ms\n", plan.transport_late_ms);
    text += fmt::format("port driver: {} transfers{}\n", plan.checks_transfers ? "checks" : "does not check",
                        plan.scan_stops_at_gap ? ", scans up to a gap" : "");
    text += fmt::format("processors: {}, clock tick {} ms{}\n", plan.processors == 1 ? "one" : "many",
                        ms(plan.clock_tick_100ns), plan.switch_at_atomics ? ", switches at atomics" : "");
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun)
        text += text_of(plan, lun);
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun)
        if (plan.disks[lun].first_lba != 0)
            text += fmt::format("disk {} is used from LBA {:X} on\n", lun, plan.disks[lun].first_lba);
    for (const auto& [name, value] : plan.settings)
        text += fmt::format("setting {} = {}\n", name, value);
    text += text_of(plan.memory);
    if (plan.boots_locally())
        text += fmt::format(
            "local disk: system {} sectors, temporary {}, latency {}-{} ms, volatile {} ms{}{}\n",
            plan.local.system_sectors, plan.local.temporary_sectors, ms(plan.local.options.latency_min),
            ms(plan.local.options.latency_max), ms(plan.local.options.volatile_max),
            plan.local.synchronise ? "" : ", no synchronisation",
            plan.local.never_flushes ? ", never flushes" : "");
    text += fmt::format("network: delay {}-{} ms, loss {}\n", ms(plan.network.delay_min),
                        ms(plan.network.delay_max), plan.network.loss);
    text +=
        fmt::format("load: {} clients per disk, {} operations, writes {:.2f}, large {:.2f}, hot {:.2f}{}\n",
                    plan.load.clients_per_lun, plan.load.operations, plan.load.writes, plan.load.large,
                    plan.load.hot, plan.load.overlapping ? ", overlapping" : "");
    for (const StartPlan& start : plan.starts)
        text += text_of(plan, start);
    return text;
}

}  // namespace campaign
