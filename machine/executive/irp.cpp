// SPDX-License-Identifier: MIT
// I/O request packets: allocation, the way down through drivers and the way back up through their
// completion routines.
#include <nt.h>

#include <cstring>
#include <string>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/irp.h"
#include "machine/executive/own_request.h"

using namespace machine;

namespace {

constexpr CSHORT irp_type = 6;
constexpr ULONG irp_tag = pool_tag("Irp ");

void check_irp(PIRP irp, const char* routine)
{
    if (!irp || irp->Type != irp_type)
        violation(std::string(routine) + ": no IRP, or one that was completed and freed before");
}

USHORT irp_bytes(CCHAR stack_size)
{
    return static_cast<USHORT>(sizeof(IRP) +
                               static_cast<std::size_t>(stack_size) * sizeof(IO_STACK_LOCATION));
}

bool under_way(PIRP irp)
{
    return irp->CurrentLocation <= irp->StackCount;
}

NTSTATUS refuse(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

bool control_request_fails(PDEVICE_OBJECT device, const IO_STACK_LOCATION& location)
{
    if (location.MajorFunction != IRP_MJ_DEVICE_CONTROL)
        return false;
    ExecutiveState& kernel = executive();
    return kernel.faults.hit(Operation::ioctl, kernel.names.name_of(device));
}

NTSTATUS dispatch(PDEVICE_OBJECT device, PIRP irp, const IO_STACK_LOCATION& location)
{
    const UCHAR major = location.MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION)
        violation("IofCallDriver: no such major function: " + std::to_string(major));
    if (control_request_fails(device, location))
        return refuse(irp, STATUS_UNSUCCESSFUL);
    PDRIVER_DISPATCH routine = device->DriverObject ? device->DriverObject->MajorFunction[major] : nullptr;
    return routine ? routine(device, irp) : refuse(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS watched_dispatch(PDEVICE_OBJECT device, PIRP irp, const IO_STACK_LOCATION& location)
{
    IrpCalls& calls = executive().irp_calls;
    IrpCalls::Call call;
    calls.begin(&location, call);
    const NTSTATUS status = dispatch(device, irp, location);
    calls.end(&location, call, status);
    return status;
}

// Whether a completion routine wants to see this end of the request.
bool routine_invoked(const IRP& irp, UCHAR control)
{
    if (NT_SUCCESS(irp.IoStatus.Status) ? (control & SL_INVOKE_ON_SUCCESS) : (control & SL_INVOKE_ON_ERROR))
        return true;
    return irp.Cancel && (control & SL_INVOKE_ON_CANCEL);
}

void clear_location(IO_STACK_LOCATION& location)
{
    location.MinorFunction = 0;
    location.Flags = 0;
    location.Control = 0;
    location.Parameters.Others.Argument1 = nullptr;
    location.Parameters.Others.Argument2 = nullptr;
    location.Parameters.Others.Argument3 = nullptr;
    location.FileObject = nullptr;
}

}  // namespace

extern "C" {

VOID NTAPI IoInitializeIrp(PIRP irp, USHORT bytes, CCHAR stack_size)
{
    self();
    if (stack_size <= 0 || bytes < irp_bytes(stack_size))
        violation("IoInitializeIrp: " + std::to_string(bytes) + " bytes cannot hold " +
                  std::to_string(stack_size) + " stack locations");
    std::memset(irp, 0, bytes);
    irp->Type = irp_type;
    irp->Size = bytes;
    irp->StackCount = stack_size;
    irp->CurrentLocation = static_cast<CHAR>(stack_size + 1);
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stack_size;
}

PIRP NTAPI IoAllocateIrp(CCHAR stack_size, BOOLEAN)
{
    enter_at_most(DISPATCH_LEVEL, "IoAllocateIrp");
    if (executive().faults.hit(Operation::irp_allocate, "IoAllocateIrp"))
        return nullptr;
    return new_irp(stack_size);
}

VOID NTAPI IoReuseIrp(PIRP irp, NTSTATUS status)
{
    enter_at_most(DISPATCH_LEVEL, "IoReuseIrp");
    check_irp(irp, "IoReuseIrp");
    if (under_way(irp) || irp->AllocationFlags != 0)
        violation("IoReuseIrp: the IRP is under way, or was not made by IoAllocateIrp");
    IoInitializeIrp(irp, irp->Size, irp->StackCount);
    irp->IoStatus.Status = status;
}

VOID NTAPI IoFreeIrp(PIRP irp)
{
    enter_at_most(DISPATCH_LEVEL, "IoFreeIrp");
    check_irp(irp, "IoFreeIrp");
    if (under_way(irp))
        violation("IoFreeIrp: the IRP is under way");
    executive().system.free(irp, irp_tag);
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT device, PIRP irp)
{
    const Thread& thread = enter_at_most(DISPATCH_LEVEL, "IofCallDriver");
    check_irp(irp, "IofCallDriver");
    // Its end is told to the thread that made it, which takes it at PASSIVE_LEVEL only.
    if (is_own_request(*irp) && thread.irql > PASSIVE_LEVEL)
        violation("IofCallDriver at IRQL " + std::to_string(thread.irql) +
                  " with an IRP that belongs to a thread, allowed at PASSIVE_LEVEL only");
    if (irp->CurrentLocation <= 1)
        violation("IofCallDriver: the IRP has no stack location left, or is under way already");
    --irp->CurrentLocation;
    IO_STACK_LOCATION& location = *--irp->Tail.Overlay.CurrentStackLocation;
    location.DeviceObject = device;
    const KIRQL irql = thread.irql;
    const NTSTATUS status =
        strict_checks ? watched_dispatch(device, irp, location) : dispatch(device, irp, location);
    if (thread.irql != irql)
        violation("a dispatch routine called at IRQL " + std::to_string(irql) + " returned at IRQL " +
                  std::to_string(thread.irql));
    return status;
}

VOID FASTCALL IofCompleteRequest(PIRP irp, CCHAR)
{
    enter_at_most(DISPATCH_LEVEL, "IofCompleteRequest");
    check_irp(irp, "IofCompleteRequest");
    if (!under_way(irp))
        violation("IofCompleteRequest: the IRP is complete already, or was never sent");
    if (irp->IoStatus.Status == STATUS_PENDING)
        violation("IofCompleteRequest with STATUS_PENDING");

    while (under_way(irp)) {
        IO_STACK_LOCATION& done = *irp->Tail.Overlay.CurrentStackLocation;
        if (strict_checks)
            executive().irp_calls.complete(&done);
        ++irp->CurrentLocation;
        ++irp->Tail.Overlay.CurrentStackLocation;
        const UCHAR control = done.Control;
        irp->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
        clear_location(done);
        const bool above = under_way(irp);
        if (done.CompletionRoutine && routine_invoked(*irp, control)) {
            PDEVICE_OBJECT device = above ? IoGetCurrentIrpStackLocation(irp)->DeviceObject : nullptr;
            // The routine may free the IRP, or send it again, when it keeps it.
            if (done.CompletionRoutine(device, irp, done.Context) == STATUS_MORE_PROCESSING_REQUIRED)
                return;
        } else if (irp->PendingReturned && above) {
            IoMarkIrpPending(irp);
        }
    }
    end_own_request(irp);
}

}  // extern "C"

namespace machine {

PIRP new_irp(CCHAR stack_size, std::size_t more_bytes)
{
    const USHORT bytes = irp_bytes(stack_size);
    auto* irp = static_cast<PIRP>(executive().system.allocate(bytes + more_bytes, irp_tag));
    if (!irp)
        return nullptr;
    IoInitializeIrp(irp, bytes, stack_size);
    std::memset(reinterpret_cast<UCHAR*>(irp) + bytes, 0, more_bytes);
    return irp;
}

void free_irp(PIRP irp)
{
    irp->Type = 0;
    executive().system.free(irp, irp_tag);
}

}  // namespace machine
