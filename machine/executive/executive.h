// SPDX-License-Identifier: MIT
// The executive's state: what the kernel routines of one machine share. The Machine owns it; the
// routines, which are global functions, find it through executive().
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <nt.h>

#include "machine/executive/debug_log.h"
#include "machine/executive/device_names.h"
#include "machine/executive/executive_config.h"
#include "machine/executive/faults.h"
#include "machine/executive/irp_calls.h"
#include "machine/executive/objects.h"
#include "machine/executive/outcome.h"
#include "machine/executive/page_lists.h"
#include "machine/executive/physical_memory.h"
#include "machine/executive/pool.h"
#include "machine/executive/ports.h"
#include "machine/executive/registry.h"
#include "machine/scheduler/scheduler.h"

namespace machine {

struct Reinitialization {
    PDRIVER_OBJECT driver;
    PDRIVER_REINITIALIZE routine;
    PVOID context;
};

struct ExecutiveState {
    explicit ExecutiveState(const ExecutiveConfig& executive_config);
    ~ExecutiveState();
    ExecutiveState(const ExecutiveState&) = delete;
    ExecutiveState& operator=(const ExecutiveState&) = delete;

    const ExecutiveConfig config;
    const OwnedScheduler scheduler;
    const std::int64_t
        boot_time;  // system time (100 ns units since 1601) at which the machine was switched on

    PhysicalMemory memory;
    PageLists page_lists;
    Registry registry;
    Faults faults;
    DebugLog log;
    Ports ports;
    Pool pool;    // what drivers allocate
    Pool system;  // what the executive allocates for itself: IRPs, device and file objects
    Objects objects;
    DeviceNames names;
    IrpCalls irp_calls;

    std::mutex reinitializations_lock;
    std::vector<Reinitialization> reinitializations;

    std::atomic<bool> stopped = false;
    Outcome outcome = Outcome::finished;  // valid once stopped
    std::atomic<std::uint32_t> bug_check_code = 0;
};

// The machine's executive; a violation when there is none.
ExecutiveState& executive();

// Stops the machine: no thread of it runs again, run() returns the outcome.
[[noreturn]] void stop_machine(Outcome outcome, std::uint32_t bug_check_code = 0);

// A device goes when it was deleted and nobody has it open.
void free_device_when_unused(PDEVICE_OBJECT device);

// Runs the registered boot-driver reinitialisation callbacks, each once.
void run_reinitializations();

}  // namespace machine
