// SPDX-License-Identifier: MIT
// What a machine's kernel and hardware are like. Set before the machine is constructed, unchanged from then
// on.
#pragma once

#include <cstdint>
#include <vector>

#include "machine/executive/physical_memory.h"
#include "machine/scheduler/scheduler.h"

namespace machine {

enum class SchedulerKind { simulated, real };

struct ExecutiveConfig {
    SchedulerKind scheduler = SchedulerKind::simulated;
    std::uint64_t seed = 1;

    // On the simulated scheduler. 1: one processor; at DISPATCH_LEVEL nothing else runs, below it only
    // threads of equal or higher priority take over. 2: as many processors as threads, and priorities mean
    // nothing.
    unsigned processors = 2;
    // On the real scheduler: so many host threads run the kernel threads as fibers, at least two. 0: each kernel
    // thread is a host thread.
    unsigned host_processors = 2;
    // On the simulated scheduler the linked driver's atomic operations and YieldProcessor are points where
    // another thread may run. A driver file has none of them, so a seed runs the same in both only without.
    bool switch_at_atomics = false;
    // Between two ticks of the clock, on which waits end and of which readings tell the last; 0: the clock is
    // exact.
    Ticks clock_tick_100ns = 0;

    // What MmGetPhysicalMemoryRanges lists. Empty: one range of 512 MB from 1 MB.
    std::vector<MemoryRange> memory_ranges = {};
    // Memory that stands above 4 GB without being managed; 0: none.
    std::uint64_t unmanaged_above_4g_bytes = 0;
    // Whole pages that can be mapped though nothing answers there: reads give ones, writes are lost.
    std::vector<MemoryRange> unanswered_ranges = {};
    // That memory holds garbage until somebody writes there, instead of zeros.
    bool garbage_above_4g = false;
    // Free page table entries of the system, one for each page that is mapped at a time: 180,000 are about
    // what a 32-bit system has left without a larger share for programs. 0: no limit but the process's own.
    std::uint32_t system_ptes = 180'000;
    // So many of them are neighbours, the others lie in smaller runs; a mapping takes neighbours. 0: drawn
    // from the seed in simulated time, else all.
    std::uint32_t largest_pte_run = 0;
    // What a driver's blocks of non-paged pool may have together; a system with 512 MB sets itself about so
    // much.
    std::uint64_t nonpaged_pool_bytes_max = 128 * 1024 * 1024;
    // The system itself addresses memory above 4 GB (Mm64BitPhysicalAddress).
    bool mm64bit = false;
    // The BIOS data area's count of base memory, in KB.
    std::uint16_t base_memory_kb = 600;
    // What local time is behind universal time, in minutes; east of Greenwich it is negative.
    std::int32_t time_zone_bias_minutes = 0;

    // A machine whose forced reset through the ports works ends with Outcome::reset; on one where it
    // does not, the driver goes on to its bug check.
    bool reset_ports_work = true;

    // Clusters of strict checks that a benchmark may leave out. Tests never do.
    bool strict = true;
};

}  // namespace machine
