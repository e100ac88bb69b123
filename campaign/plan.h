// SPDX-License-Identifier: MIT
// Everything that a seed decides, drawn before anything runs. Each part comes from a stream of its own.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "machine/disk/local_disk.h"
#include "machine/executive/physical_memory.h"
#include "machine/machine.h"
#include "machine/transport/simulated_network.h"
#include "simulation/boot_block.h"

namespace campaign {

struct DiskPlan : simulation::Disk {
    bool zeros;               // parts of it hold zeros at the beginning
    std::uint32_t first_lba;  // of what is used; the disk ends behind it, and nothing lies before it

    bool ram_cache() const;  // the workstation keeps its writes in memory
    bool wide() const;       // it has more blocks there than all windows show at once
};

struct MemoryPlan {
    std::vector<machine::MemoryRange> ranges;
    std::uint64_t above_4g_bytes;                // that the system does not manage
    std::uint32_t system_ptes, largest_pte_run;  // 0: the machine's own way
    std::uint64_t nonpaged_pool_bytes_max;       // 0: the same
    bool garbage_above_4g;
    bool mm64bit;
};

// A local disk for boot mode 7. Its partitions, in sectors.
struct LocalPlan {
    std::uint32_t system_sectors, temporary_sectors;  // 0: no such partition
    machine::LocalDiskOptions options;
    bool synchronise;
    bool never_flushes;  // every flush fails
};

struct LoadPlan {
    unsigned clients_per_lun;
    unsigned operations;  // about so many in the safety phase of a start
    double writes;        // share of all operations
    double large;         // share of requests of 64 KB
    double hot;           // share of requests to a tenth of the disk
    bool overlapping;     // clients share the disk; else each has a part of its own
};

enum class FaultKind {
    network,            // loss, duplication, delay, reordering, corruption for a while
    main_crash,         // the main server is away, and comes back with all it had answered
    main_crash_losing,  // the same, without its last writes
    main_partition,
    slave_crash,
    slave_partition,
    retry_limit,  // the server asks to give up soon
    allocation,
    mapping,
    local_request,  // a local disk's request cannot be made
    local_error,
    local_short,
    local_bad_sectors,
    pool_runs_out,    // some more allocations, and then none for a while
    windows_run_out,  // the same for mappings
    store_error,      // a disk of the main server cannot be read, or written, or both
    kinds,
};
const char* name_of(FaultKind kind);

struct Fault {
    FaultKind kind;
    std::int64_t at_ms, for_ms;
    double strength;  // a probability, or a place on the disk from 0 to 1
};

enum class End {
    checked,    // faults stop, everything must complete
    power_off,  // at any time
    shutdown,   // the system goes down in the middle of it, and then the power
};

// Failures during the start itself.
struct BootFault {
    enum class Kind { allocation, thread, pages, registry, local_read } kind;
    unsigned skip, count;
};

const char* name_of(BootFault::Kind kind);

enum class PortEventKind { bus_reset, start_again, scan, no_buffer, kinds };
const char* name_of(PortEventKind kind);

struct PortEvent {
    PortEventKind kind;
    std::int64_t at_ms;
};

struct StartPlan {
    std::int64_t safety_ms;
    std::vector<Fault> faults;
    std::vector<BootFault> boot_faults;
    std::vector<PortEvent> port_events;
    std::vector<std::uint8_t> shutdown_order;  // LUNs; empty: LUN 0 last
    End end;
    bool new_image;   // the server has a newer image than at the start before
    bool only_reads;  // clients write nothing
    // Boot mode 7 only.
    bool synchronise_at_once;   // the first request is the write that lets the synchronisation begin
    bool rolled_back;           // the server's disk has what it had once
    bool recreated, unshifted;  // it was made anew, and its sectors are those that the engine counts
    double flush_errors;        // share of the local disk's flushes that fail
};

struct Plan {
    std::uint64_t seed;
    std::uint32_t boot_mode;
    std::uint8_t boot_flags;
    std::uint32_t tag_key;
    std::uint16_t rack_level;
    bool through_transport;          // the boot block comes from the transport, not from low memory
    std::int64_t transport_late_ms;  // so long it looks for its servers
    bool reset_ports_work;
    machine::Feeding feeding;
    bool curious_class_driver;
    bool scan_stops_at_gap;
    bool checks_transfers;  // the port driver refuses what no class driver sends
    unsigned processors;
    machine::Ticks clock_tick_100ns;
    bool switch_at_atomics;  // by the linked driver
    std::vector<DiskPlan> disks;
    std::map<std::string, std::uint32_t> settings;  // of the service key
    bool pae;                                       // the system says that it uses long addresses
    MemoryPlan memory;
    LocalPlan local;  // boot mode 7 only
    machine::NetworkQuality network;
    LoadPlan load;
    std::vector<StartPlan> starts;
    unsigned uptime_hours;  // 0: starts as they were drawn

    bool boots_locally() const;
    bool mirrored() const;
};

// Which disk a store error is of, and what fails there.
struct StoreError {
    unsigned lun;
    bool reads, writes;
};
StoreError store_error_of(const Fault& fault, std::size_t disks);

Plan draw_plan(std::uint64_t seed);

// One line per draw.
std::string to_text(const Plan& plan);

}  // namespace campaign
