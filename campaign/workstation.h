// SPDX-License-Identifier: MIT
// One start of the simulated workstation: machine, network and driver, as the plan wants them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "campaign/wire_rules.h"
#include "campaign/world.h"
#include "formats/boot_block.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/transport.h"

namespace campaign {

class Workstation {
public:
    // number: counts the starts from 1. off_ms: how long the workstation was off before.
    Workstation(World& world, unsigned number, machine::DriverImage& driver, std::int64_t off_ms);
    ~Workstation();

    World& world;
    const unsigned number;
    machine::Machine machine;
    machine::SimulatedNetwork network;

    const StartPlan& plan() const { return world.plan.starts[number - 1]; }
    machine::ScsiPort& scsi() { return machine.scsi(); }
    std::int64_t now_ms() { return machine.now_ms(); }

    // Loads the driver and waits until the disks are there; inside Machine::run.
    void boot();

    // From now on: the workers that ask the servers for blocks of a disk, as bits.
    void watch_workers() { workers_.fill(0); }
    unsigned workers(unsigned lun) const { return workers_[lun]; }

    // A mirrored disk is read from its slave server, or written only there, once it has left its main server,
    // and only then.
    bool left_main(unsigned lun) const { return (left_main_ >> lun & 1) != 0; }
    std::function<void(unsigned lun)> on_main_left;  // when it shows for the first time

    // Adds to the coverage what the run left in its parts.
    void count_events();

private:
    void leave_boot_block();
    void see(machine::Direction direction, const formats::ServerRecord& server,
             std::span<const std::uint8_t> packet);
    void capture(machine::Direction direction, const formats::ServerRecord& server,
                 std::span<const std::uint8_t> packet);

    machine::DriverImage& driver_;
    std::array<unsigned, formats::disk_count_max> workers_{};
    unsigned left_main_ = 0;  // bits by LUN
    WireRules rules_;
};

}  // namespace campaign
