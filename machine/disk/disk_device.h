// SPDX-License-Identifier: MIT
// A local disk in a machine: the device \Device\Harddisk<n>\DR<n>, which PhysicalDrive<n> names, and a filter
// above it. Reads and writes come at PASSIVE_LEVEL with their buffer in an MDL; they are complete at once, or
// pending until a timer (simulated) or a worker thread (real) completes them.
#pragma once

#include <memory>
#include <vector>

#include <nt.h>

#include "machine/disk/local_disk.h"

namespace machine {

class DiskDevice {
public:
    // A violation when the disk is in a machine already, or the name is taken.
    DiskDevice(LocalDisk& disk, unsigned number);
    // The machine is off. What is under way stays with the disk as if it stood in its volatile cache.
    ~DiskDevice();
    DiskDevice(const DiskDevice&) = delete;
    DiskDevice& operator=(const DiskDevice&) = delete;

private:
    struct Request;
    struct WorkQueue;

    static NTSTATUS NTAPI dispatch_transfer(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI dispatch_flush(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI dispatch_filter(PDEVICE_OBJECT device, PIRP irp);
    static IO_STATUS_BLOCK serve(LocalDisk::State& state, const Request& request);
    static bool move_bytes(LocalDisk::State& state, const Request& request, std::uint32_t bytes);
    static void work(const std::shared_ptr<WorkQueue>& queue);

    PDEVICE_OBJECT create(DRIVER_OBJECT& driver, PUNICODE_STRING name);
    void create_stack(unsigned number);
    void start_workers();
    NTSTATUS accept(PIRP irp, Request& request) const;
    NTSTATUS start(const Request& request);
    NTSTATUS start_later(const Request& request, Ticks latency);
    void finish(const Request* pending);

    const std::shared_ptr<LocalDisk::State> state_;
    DRIVER_OBJECT disk_driver_{}, filter_driver_{};
    PDEVICE_OBJECT device_ = nullptr, filter_ = nullptr;
    std::vector<std::unique_ptr<Request>> under_way_;  // simulated scheduler, in the order of their start
    std::shared_ptr<WorkQueue> queue_;                 // real scheduler; null: no workers
};

}  // namespace machine
