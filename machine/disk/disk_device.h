// SPDX-License-Identifier: MIT
// A local disk in a machine: the device \Device\Harddisk<n>\DR<n>, which PhysicalDrive<n> names, and a filter
// above it. Reads and writes come at PASSIVE_LEVEL with their buffer in an MDL; how they are carried out is
// the scheduler's DiskWork to know.
#pragma once

#include <memory>

#include <nt.h>

#include "machine/disk/disk_work.h"
#include "machine/disk/local_disk.h"

namespace machine {

class DiskDevice {
public:
    // A violation when the disk is in a machine already, or the name is taken.
    DiskDevice(LocalDisk& disk, unsigned number);
    // The machine is off.
    ~DiskDevice();
    DiskDevice(const DiskDevice&) = delete;
    DiskDevice& operator=(const DiskDevice&) = delete;

private:
    static NTSTATUS NTAPI dispatch_transfer(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI dispatch_flush(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI dispatch_filter(PDEVICE_OBJECT device, PIRP irp);

    PDEVICE_OBJECT create(DRIVER_OBJECT& driver, PUNICODE_STRING name);
    void create_stack(unsigned number);
    NTSTATUS accept(PIRP irp, DiskRequest& request) const;

    const std::shared_ptr<DiskState> state_;
    DRIVER_OBJECT disk_driver_{}, filter_driver_{};
    PDEVICE_OBJECT device_ = nullptr, filter_ = nullptr;
    std::unique_ptr<DiskWork> work_;
};

}  // namespace machine
