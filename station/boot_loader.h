// SPDX-License-Identifier: MIT
// What is there before the driver runs: the machine as the command line wants it, settings in its registry,
// and the disks as a boot program or the code in a local disk's boot sector leave them for the driver. Main
// thread, before the machine runs.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "machine/disk/local_disk.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "station/local_boot.h"
#include "station/options.h"

namespace station {

machine::MachineConfig machine_config(const Options& options);

// Throws OptionError.
std::unique_ptr<machine::DriverImage> load_driver(const std::string& name);

class BootLoader {
public:
    BootLoader(machine::Machine& machine, const Options& options);

    // The system comes from the local disk, which must outlive the machine. Before hand_over(). Throws
    // std::runtime_error when there is no image of it.
    void boot_from(const LocalDiskFile& file, machine::LocalDisk& disk);
    void hand_over(machine::Transport& transport);
    void fill_registry();

    // As the driver gets it.
    const formats::Boot_Param& block() const { return block_; }

private:
    void write_low_memory(std::span<const std::uint8_t> bytes);

    machine::Machine& machine_;
    const Options& options_;
    formats::Boot_Param block_;
    std::uint64_t low_memory_next_;  // first byte of conventional memory that is free for a loader
};

}  // namespace station
