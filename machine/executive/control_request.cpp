// SPDX-License-Identifier: MIT
// Device-control requests that the executive builds, and the end of every request that it built.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/irp.h"

using namespace machine;

namespace {

constexpr ULONG system_buffer_tag = pool_tag("IoSB");

constexpr ULONG method_of(ULONG control_code)
{
    return control_code & 3;
}

// The length of the requester's output buffer, kept where only requests that create files have a use for
// the field: the stack location is cleared on the way up.
ULONG& output_bytes_of(IRP& irp)
{
    return irp.Overlay.AllocationSize.u.LowPart;
}

// One buffer carries the input down and the output up. False when there is no memory.
bool attach_system_buffer(IRP& irp, const void* input, ULONG input_bytes, void* output, ULONG output_bytes)
{
    const ULONG bytes = std::max(input_bytes, output_bytes);
    if (bytes == 0)
        return true;
    irp.AssociatedIrp.SystemBuffer = executive().system.allocate(bytes, system_buffer_tag);
    if (!irp.AssociatedIrp.SystemBuffer)
        return false;
    if (input)
        std::memcpy(irp.AssociatedIrp.SystemBuffer, input, input_bytes);
    irp.Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    if (output) {
        irp.Flags |= IRP_INPUT_OPERATION;
        irp.UserBuffer = output;
        output_bytes_of(irp) = output_bytes;
    }
    return true;
}

}  // namespace

namespace machine {

void finish_irp(PIRP irp)
{
    if (!(irp->AllocationFlags & irp_is_ours))
        violation("the completion of an IRP that a driver allocated ran to its end: the driver's completion "
                  "routine must return STATUS_MORE_PROCESSING_REQUIRED");
    const IO_STATUS_BLOCK result = irp->IoStatus;
    // A request that failed at once tells its requester so by its status alone.
    const bool reported = !NT_ERROR(result.Status) || irp->PendingReturned;
    if (!NT_ERROR(result.Status) && irp->UserBuffer) {
        if (result.Information > output_bytes_of(*irp))
            violation("a device returned more bytes than the output buffer has");
        std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, result.Information);
    }
    free_transfer_list(*irp, result);
    if (irp->AssociatedIrp.SystemBuffer)
        executive().system.free(irp->AssociatedIrp.SystemBuffer, system_buffer_tag);
    PIO_STATUS_BLOCK status_block = irp->UserIosb;
    PKEVENT event = irp->UserEvent;
    free_irp(irp);
    if (!reported)
        return;
    if (status_block)
        *status_block = result;
    if (event)
        KeSetEvent(event, IO_NO_INCREMENT, FALSE);
}

}  // namespace machine

extern "C" {

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG input_bytes,
                                         PVOID output, ULONG output_bytes, BOOLEAN internal, PKEVENT event,
                                         PIO_STATUS_BLOCK status_block)
{
    enter_at_most(PASSIVE_LEVEL, "IoBuildDeviceIoControlRequest");
    if (method_of(code) != METHOD_BUFFERED)
        violation("IoBuildDeviceIoControlRequest: only METHOD_BUFFERED is supported");
    if (executive().faults.hit(Operation::irp_allocate, "IoBuildDeviceIoControlRequest"))
        return nullptr;
    PIRP irp = new_irp(device->StackSize);
    if (!irp)
        return nullptr;
    irp->AllocationFlags = irp_is_ours;
    if (!attach_system_buffer(*irp, input, input_bytes, output, output_bytes)) {
        free_irp(irp);
        return nullptr;
    }
    irp->UserEvent = event;
    irp->UserIosb = status_block;
    irp->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(KeGetCurrentThread());
    IO_STACK_LOCATION& location = *IoGetNextIrpStackLocation(irp);
    location.MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    location.Parameters.DeviceIoControl.OutputBufferLength = output_bytes;
    location.Parameters.DeviceIoControl.InputBufferLength = input_bytes;
    location.Parameters.DeviceIoControl.IoControlCode = code;
    return irp;
}

}  // extern "C"
