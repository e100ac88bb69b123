// SPDX-License-Identifier: MIT
// The machine: a PC in a process. It owns the scheduler, the executive's state, the SCSI port driver,
// the transport and the physical memory, and loads one driver. Kernel routines are global functions,
// so one machine exists at a time; constructing the next one after the last is destroyed starts
// from nothing.
//
// Its parts stand below it and know nothing of it: each declares what can be configured of it.
//
// Who uses it: qrn-station, the tests and the benchmarks. Set the configuration, construct, put what
// firmware and boot loader leave in memory, then boot() a driver.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "machine/executive/debug_log.h"
#include "machine/executive/executive_config.h"
#include "machine/executive/faults.h"
#include "machine/executive/outcome.h"
#include "machine/executive/physical_memory.h"
#include "machine/executive/ports.h"
#include "machine/executive/registry.h"
#include "machine/scheduler/scheduler.h"
#include "machine/scheduler/violation.h"
#include "machine/scsiport/port_config.h"

namespace machine {

class DriverImage;  // machine/loader/driver_image.h
class ScsiPort;     // machine/scsiport/scsi_port.h
class Transport;    // machine/transport/transport.h
class Link;         // machine/transport/link.h
class LocalDisk;    // machine/disk/local_disk.h

struct MachineConfig : ExecutiveConfig, PortConfig {
    constexpr MachineConfig(const ExecutiveConfig& executive = {}, const PortConfig& port = {})
        : ExecutiveConfig(executive), PortConfig(port)
    {
    }

    // What a thread may use of its stack in simulated time, 0: anything. A kernel's stack has 12 KB, and from
    // the same come the frames of what stands below the driver, which are larger there than the machine's.
    std::uint32_t stack_bytes_max = 0;
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

}  // namespace machine
