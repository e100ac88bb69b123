// SPDX-License-Identifier: MIT
#include "tests/scenario/dispatch_tap.h"

#include <algorithm>
#include <iterator>

namespace scenario {

// A dispatch routine carries no context.
static DispatchTap* the_tap;

DispatchTap::DispatchTap(Rig& rig)
{
    the_tap = this;
    rig.scsi().set_before_initialize([this](PDRIVER_OBJECT driver) {
        driver_ = driver;
        port_dispatch_ = driver->MajorFunction[IRP_MJ_SCSI];
        driver->MajorFunction[IRP_MJ_SCSI] = dispatch;
        if (before_initialize)
            before_initialize(driver);
    });
}

DispatchTap::~DispatchTap()
{
    the_tap = nullptr;
}

NTSTATUS NTAPI DispatchTap::dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    return the_tap->pass(device, irp);
}

NTSTATUS DispatchTap::pass(PDEVICE_OBJECT device, PIRP irp)
{
    if (irp == foreign_) {
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PSCSI_REQUEST_BLOCK srb = stack->Parameters.Scsi.Srb;
    Seen seen{irp, *stack, srb, *srb, {}};
    if (srb->Function == SRB_FUNCTION_IO_CONTROL && srb->DataTransferLength >= sizeof seen.control)
        seen.control = *static_cast<SRB_IO_CONTROL*>(srb->DataBuffer);
    seen_.push_back(seen);
    if (!keep_back || !keep_back(seen))
        return port_dispatch_(device, irp);
    IoMarkIrpPending(irp);
    kept_.push_back({device, irp});
    return STATUS_PENDING;
}

std::vector<DispatchTap::Seen> DispatchTap::notices(bool completing) const
{
    std::vector<Seen> found;
    std::copy_if(seen_.begin(), seen_.end(), std::back_inserter(found),
                 [&](const Seen& seen) { return seen.notice() && seen.completes() == completing; });
    return found;
}

void DispatchTap::release()
{
    keep_back = nullptr;
    std::vector<Kept> kept = std::move(kept_);
    kept_.clear();
    for (const Kept& request : kept)
        port_dispatch_(request.device, request.irp);
}

static NTSTATUS NTAPI keep_irp(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void DispatchTap::send_foreign(ULONG control_code, PVOID argument)
{
    foreign_ = IoAllocateIrp(1, FALSE);
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(foreign_);
    stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = control_code;
    stack->Parameters.Others.Argument1 = argument;
    IoSetCompletionRoutine(foreign_, keep_irp, nullptr, TRUE, TRUE, TRUE);
    IofCallDriver(driver_->DeviceObject, foreign_);
    IoFreeIrp(foreign_);
    foreign_ = nullptr;
}

}  // namespace scenario
