// SPDX-License-Identifier: MIT
#include "machine/machine.h"

#include "machine/disk/disk_device.h"
#include "machine/executive/driver_object.h"
#include "machine/executive/executive.h"
#include "machine/loader/driver_image.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/transport.h"

namespace machine {
namespace {

Machine* the_machine = nullptr;

void check_stacks(Scheduler& scheduler, const MachineConfig& config)
{
    if (config.stack_bytes_max == 0)
        return;
    const Scheduler::StackUse use = scheduler.deepest_stack();
    if (use.bytes > config.stack_bytes_max)
        violation("thread \"" + use.thread + "\" used " + std::to_string(use.bytes) +
                  " bytes of its stack, allowed are " + std::to_string(config.stack_bytes_max));
}

}  // namespace

struct Machine::Parts {
    explicit Parts(const MachineConfig& machine_config) : config(machine_config), executive(config) {}
    ~Parts() { executive.scheduler->switch_off(); }

    const MachineConfig config;
    ExecutiveState executive;
    std::unique_ptr<DriverObject> driver;
    std::unique_ptr<ScsiPort> scsi;
    std::unique_ptr<Transport> transport;
    std::vector<std::unique_ptr<DiskDevice>> local_disks;
};

Machine::Machine(MachineConfig config) : parts_(std::make_unique<Parts>(config))
{
    the_machine = this;
    parts_->scsi = std::make_unique<ScsiPort>(parts_->config);
}

Machine::~Machine()
{
    parts_.reset();
    the_machine = nullptr;
}

Machine& Machine::current()
{
    if (!the_machine)
        violation("there is no machine");
    return *the_machine;
}

const MachineConfig& Machine::config() const
{
    return parts_->config;
}
Scheduler& Machine::scheduler()
{
    return *parts_->executive.scheduler;
}
PhysicalMemory& Machine::memory()
{
    return parts_->executive.memory;
}
Registry& Machine::registry()
{
    return parts_->executive.registry;
}
Faults& Machine::faults()
{
    return parts_->executive.faults;
}
DebugLog& Machine::log()
{
    return parts_->executive.log;
}
Ports& Machine::ports()
{
    return parts_->executive.ports;
}
ScsiPort& Machine::scsi()
{
    return *parts_->scsi;
}
Transport* Machine::transport()
{
    return parts_->transport.get();
}

Transport& Machine::add_transport(Link& link)
{
    parts_->transport = std::make_unique<Transport>(link);
    return *parts_->transport;
}

void Machine::add_local_disk(LocalDisk& disk, unsigned number)
{
    parts_->local_disks.push_back(std::make_unique<DiskDevice>(disk, number));
}

std::int32_t Machine::boot(DriverImage& image)
{
    parts_->driver = std::make_unique<DriverObject>(u"qrndisk", Registry::service_key, image.load());
    const NTSTATUS status = parts_->driver->initialize();
    if (!NT_SUCCESS(status))
        return status;
    parts_->scsi->scan();
    run_reinitializations();
    return status;
}

Outcome Machine::run(std::function<void()> body)
{
    ExecutiveState& executive = parts_->executive;
    const bool ended = executive.scheduler->run(std::move(body));
    if (parts_->config.strict) {
        executive.pool.check();
        executive.system.check();
        check_stacks(*executive.scheduler, parts_->config);
    }
    if (executive.stopped)
        return executive.outcome;
    return ended ? Outcome::finished : Outcome::stalled;
}

void Machine::sleep_ms(std::int64_t ms)
{
    LARGE_INTEGER interval;
    interval.QuadPart = -ms * ticks_per_ms;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

std::int64_t Machine::now_ms()
{
    return parts_->executive.scheduler->now() / ticks_per_ms;
}

void Machine::forbid_pool_allocation(bool forbid)
{
    parts_->executive.pool.forbid_allocation(forbid);
}

std::uint64_t Machine::pool_bytes(const std::string& tag) const
{
    return parts_->executive.pool.bytes(tag);
}

std::uint32_t Machine::bug_check_code() const
{
    return parts_->executive.bug_check_code;
}

}  // namespace machine
