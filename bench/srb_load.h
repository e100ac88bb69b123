// SPDX-License-Identifier: MIT
// Requests to LUN 0 of a booted workstation, straight into the port driver. For the benchmark programs; every
// function runs as a kernel thread.
#pragma once

#include <atomic>
#include <memory>
#include <stdexcept>
#include <unistd.h>
#include <vector>

#include "bench/workload.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/transport.h"
#include "machine/transport/udp_link.h"

namespace bench {

// Keeps a workload's requests in flight on LUN 0 until told to stop.
class Load {
public:
    // Requests begin at multiples of step_sectors (0: of their own length) in the first so many sectors.
    Load(machine::ScsiPort& port, const Workload& workload, std::uint32_t sectors,
         std::uint32_t step_sectors = 0)
        : port_(port), workload_(workload),
          step_sectors_(step_sectors ? step_sectors : workload.request_bytes / formats::sector_bytes),
          positions_(sectors / step_sectors_)
    {
        KeInitializeEvent(&idle_, NotificationEvent, FALSE);
        for (unsigned i = 0; i < workload.depth; ++i)
            slots_.push_back(std::make_unique<Slot>(port, workload.request_bytes));
        left_ = workload.depth;
    }

    std::uint64_t run(double seconds)
    {
        for (auto& slot : slots_) {
            slot->request.done = [this, &slot](machine::ScsiRequest&) { finished(*slot); };
            next(*slot);
        }
        machine::Machine::current().sleep_ms(static_cast<std::int64_t>(seconds * 1000));
        std::uint64_t counted = done_;
        stop_ = true;
        KeWaitForSingleObject(&idle_, Executive, KernelMode, FALSE, nullptr);
        if (failed_)
            throw std::runtime_error("a request failed");
        return counted;
    }

private:
    struct Slot {
        Slot(machine::ScsiPort& port, std::uint32_t bytes) : request(port), data(bytes) {}
        machine::ScsiRequest request;
        std::vector<std::uint8_t> data;
    };

    void next(Slot& slot)
    {
        std::uint32_t lba = position(workload_, requests_++) % positions_ * step_sectors_;
        if (workload_.write)
            slot.request.set_write(0, lba, slot.data.data(), workload_.request_bytes);
        else
            slot.request.set_read(0, lba, slot.data.data(), workload_.request_bytes);
        port_.submit(slot.request);
    }

    void finished(Slot& slot)
    {
        if (!slot.request.ok())
            failed_ = true;
        ++done_;
        if (!stop_ && !failed_)
            next(slot);
        else if (--left_ == 0)
            KeSetEvent(&idle_, IO_NO_INCREMENT, FALSE);
    }

    machine::ScsiPort& port_;
    const Workload& workload_;
    const std::uint32_t step_sectors_;
    const std::uint32_t positions_;
    std::vector<std::unique_ptr<Slot>> slots_;
    KEVENT idle_;
    std::atomic<std::uint32_t> requests_ = 0;
    std::atomic<std::uint64_t> done_ = 0;
    std::atomic<unsigned> left_ = 0;
    std::atomic<bool> stop_ = false, failed_ = false;
};

// Disks are held back, as real port drivers tend to do.
inline machine::MachineConfig machine_config()
{
    machine::MachineConfig config;
    config.feeding = machine::Feeding::held_back;
    return config;
}

// Boots a workstation on the boot block, once prepare has put into it what it is to find, and runs body in
// it; then, or after an error, the process ends, since the driver's threads never do.
inline void run_workstation(
    machine::MachineConfig config, const formats::Boot_Param& boot_block, const char* driver_name,
    const std::function<void(machine::Machine&)>& body,
    const std::function<void(machine::Machine&)>& prepare = [](machine::Machine&) {})
{
    config.scheduler = machine::SchedulerKind::real;
    config.strict = false;
    config.takes_buffers_away = false;
    std::unique_ptr<machine::UdpLink> link;  // outlives the machine
    machine::Machine machine(config);
    link = std::make_unique<machine::UdpLink>(machine.scheduler(), "0.0.0.0");
    machine.add_transport(*link).block() = boot_block;
    prepare(machine);
    machine.log().set_sink([](const machine::DebugLog::Entry&) {}, false);
    auto driver = machine::driver_named(driver_name);
    machine.run([&] {
        try {
            if (machine.boot(*driver) != STATUS_SUCCESS)
                throw std::runtime_error("the driver did not load");
            if (machine.scsi().luns().empty())
                throw std::runtime_error("the driver found no LUN");
            body(machine);
            std::fflush(stdout);
            _exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            _exit(1);
        }
    });
}

}  // namespace bench
