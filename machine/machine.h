// SPDX-License-Identifier: MIT
// The machine: a PC in a process. It owns the scheduler, the executive's state, the SCSI port driver,
// the transport and the physical memory, and loads one driver. Kernel routines are global functions,
// so one machine exists at a time; constructing the next one after the last is destroyed starts
// from nothing.
//
// Who uses it: qrn-station, the tests and the benchmarks. Set the configuration, construct, put what
// firmware and boot loader leave in memory, then boot() a driver.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "machine/executive/debug_log.h"
#include "machine/executive/faults.h"
#include "machine/executive/physical_memory.h"
#include "machine/executive/ports.h"
#include "machine/executive/registry.h"
#include "machine/scheduler/scheduler.h"

namespace machine {

class DriverImage;  // machine/loader/driver_image.h
class ScsiPort;     // machine/scsiport/scsi_port.h
class Transport;    // machine/transport/transport.h
class Link;         // machine/transport/link.h
class LocalDisk;    // machine/disk/local_disk.h

enum class SchedulerKind { simulated, real };

// How the port driver feeds a LUN with more than one request, after NextRequest. Real ones tend to the
// second.
enum class Feeding {
    eager,      // as many as there are
    held_back,  // one, and the next when an SRB of that LUN completes, one without data or of the miniport's
                // own included
};

struct MachineConfig {
    SchedulerKind scheduler = SchedulerKind::simulated;
    std::uint64_t seed = 1;

    // On the simulated scheduler. 1: one processor; at DISPATCH_LEVEL nothing else runs, below it only
    // threads of equal or higher priority take over. 2: as many processors as threads, and priorities mean
    // nothing.
    unsigned processors = 2;
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

    Feeding feeding = Feeding::eager;
    // The class driver looks closely at each LUN of a bus scan: vital product data, mode pages, the first
    // sector, with repeats of what is refused. Off, it asks for identity and size alone.
    bool curious_class_driver = false;
    // A bus scan ends at the first LUN where nobody answers, as it does on adapters whose LUNs leave no gaps.
    bool scan_stops_at_gap = false;
    // Transfers beyond the adapter's limit, and such without a buffer, are refused before the miniport sees
    // them. Off, they are sent down as they came.
    bool checks_transfers = true;
    // How long nothing goes down to the miniport after its HwResetBus, its own notices included.
    Ticks reset_hold_100ns = 4 * ticks_per_second;
    // An SRB that runs out of its time resets the bus. Off, it is a violation: of a miniport that keeps time
    // itself.
    bool srbs_may_time_out = true;
    // The miniport finds the data of a transfer in pages of the port driver's own, which are out of reach
    // once it has completed the SRB. Costs two copies and two changes of the address space for each transfer.
    bool takes_buffers_away = true;

    // A machine whose forced reset through the ports works ends with Outcome::reset; on one where it
    // does not, the driver goes on to its bug check.
    bool reset_ports_work = true;

    // What a thread may use of its stack in simulated time, 0: anything. A kernel's stack has 12 KB, and from
    // the same come the frames of what stands below the driver, which are larger there than the machine's.
    std::uint32_t stack_bytes_max = 0;

    // Clusters of strict checks that a benchmark may leave out. Tests never do.
    bool strict = true;
};

// How Machine::run ended.
enum class Outcome {
    finished,
    stalled,    // body waits for something that can never happen
    reset,      // the driver reset the machine through the ports
    bug_check,  // KeBugCheck; see bug_check_code()
};

class Machine {
public:
    explicit Machine(MachineConfig config = {});
    ~Machine();  // switches the machine off
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    static Machine& current();

    const MachineConfig& config() const;
    Scheduler& scheduler();
    PhysicalMemory& memory();
    Registry& registry();
    Faults& faults();
    DebugLog& log();
    Ports& ports();

    // The transport driver's device exists from the moment this is called; without it the machine has
    // no transport. The link carries its packets and must live as long as the machine.
    Transport& add_transport(Link& link);
    Transport* transport();

    // The disk appears under the name PhysicalDrive<number>, with a filter above it. It must live as long
    // as the machine, and can be given to the next one after.
    void add_local_disk(LocalDisk& disk, unsigned number);

    // Loads the driver: DriverEntry in a system thread, then the bus scan, then the boot-driver
    // reinitialisation callbacks. Call from inside run(). Returns DriverEntry's status.
    std::int32_t boot(DriverImage& image);

    // The port driver; valid after boot(). adapter_started() on it says whether the adapter came up.
    ScsiPort& scsi();

    // Runs body as a kernel thread at PASSIVE_LEVEL. Any number of calls, one at a time.
    Outcome run(std::function<void()> body);

    // Lets time pass for the calling kernel thread.
    void sleep_ms(std::int64_t ms);
    std::int64_t now_ms();

    // From now on every pool allocation is a violation ("data path allocates") until set back.
    void forbid_pool_allocation(bool forbid);
    // Live pool bytes, by four-character tag; empty tag: all.
    std::uint64_t pool_bytes(const std::string& tag = {}) const;

    std::uint32_t bug_check_code() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

// A broken rule of the kernel's interface. Prints the message and the thread and stops the process
// (abort), unless a test has installed a handler, which must not return.
[[noreturn]] void violation(const std::string& message);
void set_violation_handler(std::function<void(const std::string&)> handler);

}  // namespace machine
