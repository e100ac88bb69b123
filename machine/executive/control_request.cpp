// SPDX-License-Identifier: MIT
// Device-control requests that the executive builds.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/own_request.h"

using namespace machine;

namespace {

constexpr ULONG system_buffer_tag = pool_tag("IoSB");

constexpr ULONG method_of(ULONG control_code)
{
    return control_code & 3;
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
        own_request(irp).output_bytes = output_bytes;
    }
    return true;
}

}  // namespace

namespace machine {

void give_control_output(IRP& irp, const IO_STATUS_BLOCK& result)
{
    if (!NT_ERROR(result.Status) && irp.UserBuffer) {
        if (result.Information > own_request(irp).output_bytes)
            violation("a device returned more bytes than the output buffer has");
        std::memcpy(irp.UserBuffer, irp.AssociatedIrp.SystemBuffer, result.Information);
    }
    if (irp.AssociatedIrp.SystemBuffer)
        executive().system.free(irp.AssociatedIrp.SystemBuffer, system_buffer_tag);
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
    PIRP irp = new_own_request(device->StackSize, event, status_block);
    if (!irp)
        return nullptr;
    if (!attach_system_buffer(*irp, input, input_bytes, output, output_bytes)) {
        drop_own_request(irp);
        return nullptr;
    }
    IO_STACK_LOCATION& location = *IoGetNextIrpStackLocation(irp);
    location.MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    location.Parameters.DeviceIoControl.OutputBufferLength = output_bytes;
    location.Parameters.DeviceIoControl.InputBufferLength = input_bytes;
    location.Parameters.DeviceIoControl.IoControlCode = code;
    return irp;
}

}  // extern "C"
