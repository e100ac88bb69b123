// SPDX-License-Identifier: MIT
#include "machine/disk/disk_device.h"

#include <algorithm>
#include <string>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/wide_text.h"

namespace machine {
namespace {

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    IO_STATUS_BLOCK result{};
    result.Status = status;
    result.Information = information;
    return complete_disk_irp(irp, result);
}

// A whole disk has no files.
NTSTATUS NTAPI dispatch_create(PDEVICE_OBJECT, PIRP irp)
{
    const FILE_OBJECT& file = *IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (file.FileName.Length != 0)
        return complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    if (!(file.Flags & FO_DIRECT_DEVICE_OPEN))
        violation("a local disk is opened with rights for which a file system would be mounted on it");
    return complete(irp, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS NTAPI dispatch_close(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI dispatch_other(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

}  // namespace

DiskDevice::DiskDevice(LocalDisk& disk, unsigned number) : state_(disk.state_)
{
    if (state_->attached.exchange(true))
        violation("a local disk is put into a second machine, or twice into one");
    state_->medium->settle(never);
    work_ = scheduler().simulated() ? make_simulated_disk(state_) : make_hosted_disk(state_);
    create_stack(number);
}

DiskDevice::~DiskDevice()
{
    work_.reset();
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
    DiskRequest request;
    const NTSTATUS status = self.accept(irp, request);
    ++(request.write ? self.state_->writes : self.state_->reads);
    if (!NT_SUCCESS(status))
        ++(request.write ? self.state_->write_errors : self.state_->read_errors);
    return NT_SUCCESS(status) && request.bytes ? self.work_->start(request) : complete(irp, status);
}

NTSTATUS NTAPI DiskDevice::dispatch_flush(PDEVICE_OBJECT device, PIRP irp)
{
    enter_at_most(PASSIVE_LEVEL, "a flush of the local disk");
    scheduler().preemption_point();
    const DiskDevice& self = **static_cast<DiskDevice**>(device->DeviceExtension);
    const bool done = !executive().faults.hit(Operation::disk_flush, {}) && self.work_->flush();
    return complete(irp, done ? STATUS_SUCCESS : STATUS_IO_DEVICE_ERROR);
}

// Whether the request is one that the disk can carry out.
NTSTATUS DiskDevice::accept(PIRP irp, DiskRequest& request) const
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

}  // namespace machine
