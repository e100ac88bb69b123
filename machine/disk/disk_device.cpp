// SPDX-License-Identifier: MIT
#include "machine/disk/disk_device.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <string>

#include "machine/disk/disk_state.h"
#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/wide_text.h"

namespace machine {

struct DiskDevice::Request {
    PIRP irp = nullptr;
    bool write = false;
    std::uint64_t sector = 0;
    std::uint32_t bytes = 0;
    std::uint8_t* buffer = nullptr;
    std::vector<std::uint8_t> at_start = {};  // of a pending write: what the buffer held

    std::uint32_t count() const { return bytes / disk_sector_bytes; }
};

// The threads hold it beyond the end of the machine, parked.
struct DiskDevice::WorkQueue {
    explicit WorkQueue(std::shared_ptr<LocalDisk::State> disk) : state(std::move(disk))
    {
        KeInitializeSemaphore(&queued, 0, MAXLONG);
    }

    const std::shared_ptr<LocalDisk::State> state;
    KSEMAPHORE queued{};
    std::mutex lock;  // a leaf; for requests
    std::deque<Request> requests;
};

namespace {

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS complete(PIRP irp, const IO_STATUS_BLOCK& result)
{
    return complete(irp, result.Status, result.Information);
}

// A whole disk has no files.
NTSTATUS NTAPI dispatch_create(PDEVICE_OBJECT, PIRP irp)
{
    const FILE_OBJECT& file = *IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (file.FileName.Length != 0)
        return complete(irp, STATUS_OBJECT_NAME_NOT_FOUND, 0);
    if (!(file.Flags & FO_DIRECT_DEVICE_OPEN))
        violation("a local disk is opened with rights for which a file system would be mounted on it");
    return complete(irp, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS NTAPI dispatch_close(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI dispatch_other(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
}

}  // namespace

DiskDevice::DiskDevice(LocalDisk& disk, unsigned number) : state_(disk.state_)
{
    if (state_->attached.exchange(true))
        violation("a local disk is put into a second machine, or twice into one");
    if (!scheduler().simulated() && state_->options.volatile_max != 0)
        violation("a local disk with a volatile cache needs the simulated scheduler");
    state_->medium->settle(never);
    create_stack(number);
    if (!scheduler().simulated() && state_->options.workers != 0)
        start_workers();
}

DiskDevice::~DiskDevice()
{
    if (scheduler().simulated())
        state_->medium->settle(scheduler().now());
    for (const auto& request : under_way_)
        if (request->write && !state_->bad(request->sector, request->count()))
            state_->medium->write_cached(request->sector, request->at_start, never);
    IoDeleteDevice(filter_);
    IoDeleteDevice(device_);
    state_->attached = false;
}

PDEVICE_OBJECT DiskDevice::create(DRIVER_OBJECT& driver, PUNICODE_STRING name)
{
    PDEVICE_OBJECT device = nullptr;
    if (!NT_SUCCESS(IoCreateDevice(&driver, sizeof(DiskDevice*), name, FILE_DEVICE_DISK, 0, FALSE, &device)))
        violation("a local disk of this number is there already");
    *static_cast<DiskDevice**>(device->DeviceExtension) = this;
    device->Flags |= DO_DIRECT_IO;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    device->SectorSize = disk_sector_bytes;
    return device;
}

void DiskDevice::create_stack(unsigned number)
{
    std::ranges::fill(disk_driver_.MajorFunction, dispatch_other);
    disk_driver_.MajorFunction[IRP_MJ_CREATE] = dispatch_create;
    for (const int major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
        disk_driver_.MajorFunction[major] = dispatch_close;
    for (const int major : {IRP_MJ_READ, IRP_MJ_WRITE})
        disk_driver_.MajorFunction[major] = dispatch_transfer;
    disk_driver_.MajorFunction[IRP_MJ_FLUSH_BUFFERS] = dispatch_flush;
    std::ranges::fill(filter_driver_.MajorFunction, dispatch_filter);

    const std::u16string digits = widened(std::to_string(number));
    const std::u16string path = u"\\Device\\Harddisk" + digits + u"\\DR" + digits;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(path.c_str()));
    device_ = create(disk_driver_, &name);
    filter_ = create(filter_driver_, nullptr);
    filter_->StackSize = static_cast<CCHAR>(device_->StackSize + 1);
    device_->AttachedDevice = filter_;
    executive().names.add_link(u"\\DosDevices\\PhysicalDrive" + digits, path);
}

void DiskDevice::start_workers()
{
    queue_ = std::make_shared<WorkQueue>(state_);
    for (unsigned index = 0; index < state_->options.workers; ++index)
        scheduler().spawn("local disk " + std::to_string(index), [queue = queue_] { work(queue); });
}

void DiskDevice::work(const std::shared_ptr<WorkQueue>& queue)
{
    for (;;) {
        KeWaitForSingleObject(&queue->queued, Executive, KernelMode, FALSE, nullptr);
        Request request;
        {
            std::lock_guard guard(queue->lock);
            request = std::move(queue->requests.front());
            queue->requests.pop_front();
        }
        complete(request.irp, serve(*queue->state, request));
    }
}

NTSTATUS NTAPI DiskDevice::dispatch_filter(PDEVICE_OBJECT device, PIRP irp)
{
    const DiskDevice& self = **static_cast<DiskDevice**>(device->DeviceExtension);
    IoSkipCurrentIrpStackLocation(irp);
    return IofCallDriver(self.device_, irp);
}

NTSTATUS NTAPI DiskDevice::dispatch_transfer(PDEVICE_OBJECT device, PIRP irp)
{
    enter_at_most(PASSIVE_LEVEL, "a read or write of the local disk");
    scheduler().preemption_point();
    DiskDevice& self = **static_cast<DiskDevice**>(device->DeviceExtension);
    Request request;
    const NTSTATUS status = self.accept(irp, request);
    ++(request.write ? self.state_->writes : self.state_->reads);
    if (!NT_SUCCESS(status))
        ++(request.write ? self.state_->write_errors : self.state_->read_errors);
    return NT_SUCCESS(status) && request.bytes ? self.start(request) : complete(irp, status, 0);
}

// What is complete becomes durable.
NTSTATUS NTAPI DiskDevice::dispatch_flush(PDEVICE_OBJECT device, PIRP irp)
{
    enter_at_most(PASSIVE_LEVEL, "a flush of the local disk");
    scheduler().preemption_point();
    const DiskDevice& self = **static_cast<DiskDevice**>(device->DeviceExtension);
    const auto state = self.state_;  // this device may be gone when the host is done
    if (executive().faults.hit(Operation::disk_flush, {}))
        return complete(irp, STATUS_IO_DEVICE_ERROR, 0);
    if (scheduler().simulated()) {
        state->medium->settle(std::numeric_limits<Ticks>::max());
        return complete(irp, STATUS_SUCCESS, 0);
    }
    wake_waiters();  // this can take a while
    return complete(irp, state->medium->flush() ? STATUS_SUCCESS : STATUS_IO_DEVICE_ERROR, 0);
}

// Whether the request is one that the disk can carry out.
NTSTATUS DiskDevice::accept(PIRP irp, Request& request) const
{
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    request.irp = irp;
    request.write = location.MajorFunction == IRP_MJ_WRITE;
    request.bytes = request.write ? location.Parameters.Write.Length : location.Parameters.Read.Length;
    const auto offset = static_cast<std::uint64_t>(
        (request.write ? location.Parameters.Write.ByteOffset : location.Parameters.Read.ByteOffset)
            .QuadPart);
    request.sector = offset / disk_sector_bytes;

    // Nobody without the flag gets past the volumes that lie on the disk.
    if (request.write && !(location.Flags & SL_FORCE_DIRECT_WRITE))
        return STATUS_ACCESS_DENIED;
    const std::uint64_t end = state_->medium->sectors();
    if (offset % disk_sector_bytes != 0 || request.bytes % disk_sector_bytes != 0 || request.sector > end ||
        request.count() > end - request.sector)
        return STATUS_INVALID_PARAMETER;
    if (request.bytes == 0)
        return STATUS_SUCCESS;
    if (!irp->MdlAddress || MmGetMdlByteCount(irp->MdlAddress) < request.bytes)
        violation("a read or write of the local disk without a buffer of its length");
    request.buffer =
        static_cast<std::uint8_t*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
    return request.buffer ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS DiskDevice::start(const Request& request)
{
    if (scheduler().simulated()) {
        const Ticks latency = state_->draw(state_->options.latency_min, state_->options.latency_max);
        if (latency > 0)
            return start_later(request, latency);
    } else if (const auto queue = queue_) {
        IoMarkIrpPending(request.irp);
        {
            std::lock_guard guard(queue->lock);
            queue->requests.push_back(request);
        }
        KeReleaseSemaphore(&queue->queued, IO_NO_INCREMENT, 1, FALSE);
        return STATUS_PENDING;
    }
    IO_STATUS_BLOCK result;
    {
        const auto state = state_;  // this device may be gone when the host is done
        result = serve(*state, request);
    }
    return complete(request.irp, result);
}

NTSTATUS DiskDevice::start_later(const Request& request, Ticks latency)
{
    under_way_.push_back(std::make_unique<Request>(request));
    Request* const pending = under_way_.back().get();
    if (request.write)
        pending->at_start.assign(request.buffer, request.buffer + request.bytes);
    IoMarkIrpPending(request.irp);
    scheduler().call_at(scheduler().now() + latency, [this, pending] { finish(pending); });
    return STATUS_PENDING;
}

void DiskDevice::finish(const Request* pending)
{
    const PIRP irp = pending->irp;
    IO_STATUS_BLOCK result;
    {
        const auto place = std::ranges::find(under_way_, pending, &std::unique_ptr<Request>::get);
        const std::unique_ptr<Request> request = std::move(*place);
        under_way_.erase(place);
        // The disk fetches the bytes when it likes.
        if (request->write && state_->chance(0.5))
            request->buffer = request->at_start.data();
        result = serve(*state_, *request);
    }
    complete(irp, result);
}

// The first bytes of the request, to or from the medium. False when the host fails.
bool DiskDevice::move_bytes(LocalDisk::State& state, const Request& request, std::uint32_t bytes)
{
    DiskMedium& medium = *state.medium;
    const std::span buffer(request.buffer, bytes);
    const Ticks now = scheduler().now();
    if (scheduler().simulated())
        medium.settle(now);
    if (!request.write) {
        if (medium.read_at_hand(request.sector, buffer))
            return true;
        wake_waiters();  // this can take a while
        return medium.read(request.sector, buffer);
    }
    const LocalDiskOptions& options = state.options;
    if (options.volatile_max == 0)
        return medium.write(request.sector, buffer);
    medium.write_cached(request.sector, buffer, now + state.draw(options.volatile_min, options.volatile_max));
    return true;
}

// Carries out the request; one that fails or falls short gets through for some sectors at its beginning.
IO_STATUS_BLOCK DiskDevice::serve(LocalDisk::State& state, const Request& request)
{
    const bool write = request.write;
    Faults& faults = executive().faults;
    const auto asked = [&](Operation operation) {
        return faults.hit_sectors(operation, request.sector, request.count());
    };
    const bool asked_to_fail = asked(write ? Operation::disk_write : Operation::disk_read);
    const bool fails = asked_to_fail || state.bad(request.sector, request.count());
    const bool whole = !fails && !asked(write ? Operation::disk_write_short : Operation::disk_read_short);
    const auto bytes = static_cast<std::uint32_t>(
        whole ? request.bytes : state.draw(0, request.count() - 1) * disk_sector_bytes);
    const bool moved = move_bytes(state, request, bytes);
    IO_STATUS_BLOCK result{};
    result.Status = !moved ? STATUS_IO_DEVICE_ERROR : fails ? STATUS_DEVICE_DATA_ERROR : STATUS_SUCCESS;
    result.Information = NT_SUCCESS(result.Status) ? bytes : 0;
    if (!NT_SUCCESS(result.Status))
        ++(write ? state.write_errors : state.read_errors);
    (write ? state.bytes_written : state.bytes_read) += result.Information;
    return result;
}

}  // namespace machine
