// SPDX-License-Identifier: MIT
// Reads, writes and flushes that the executive builds for synchronous requesters: the requester's buffer goes
// down as a list of its pages, without a copy.
#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/own_request.h"

using namespace machine;

namespace {

constexpr ULONG list_tag = pool_tag("Mdl ");

// Kernel memory has its address already, and every page of it stays; so the list names none.
PMDL describe(PVOID buffer, ULONG bytes)
{
    auto* list = static_cast<PMDL>(executive().system.allocate(sizeof(MDL), list_tag));
    if (list)
        *list = {.Next = nullptr,
                 .Size = sizeof(MDL),
                 .MdlFlags = MDL_SOURCE_IS_NONPAGED_POOL | MDL_PAGES_LOCKED,
                 .Process = nullptr,
                 .MappedSystemVa = buffer,
                 .StartVa = PAGE_ALIGN(buffer),
                 .ByteCount = bytes,
                 .ByteOffset = BYTE_OFFSET(buffer)};
    return list;
}

void check_arguments(ULONG major, const DEVICE_OBJECT& device, PVOID buffer, ULONG bytes,
                     PLARGE_INTEGER offset, PKEVENT event, PIO_STATUS_BLOCK status_block)
{
    const bool flush = major == IRP_MJ_FLUSH_BUFFERS;
    if (!flush && major != IRP_MJ_READ && major != IRP_MJ_WRITE)
        violation("IoBuildSynchronousFsdRequest: only reads, writes and flushes are supported");
    if (!(device.Flags & DO_DIRECT_IO))
        violation("IoBuildSynchronousFsdRequest: only devices with direct transfers are supported");
    if (!status_block || (!flush && !offset) || (bytes && !buffer))
        violation("IoBuildSynchronousFsdRequest without buffer, offset or status block");
    if (flush && bytes)
        violation("IoBuildSynchronousFsdRequest: a flush has no buffer");
    if (!event)
        violation("IoBuildSynchronousFsdRequest without an event");
    KeReadStateEvent(event);  // for its check of the event alone
}

void set_parameters(IO_STACK_LOCATION& location, ULONG major, ULONG bytes, const LARGE_INTEGER* offset)
{
    location.MajorFunction = static_cast<UCHAR>(major);
    if (major == IRP_MJ_READ) {
        location.Parameters.Read.Length = bytes;
        location.Parameters.Read.ByteOffset = *offset;
    } else if (major == IRP_MJ_WRITE) {
        location.Parameters.Write.Length = bytes;
        location.Parameters.Write.ByteOffset = *offset;
    }
}

ULONG irp_flags(ULONG major)
{
    if (major == IRP_MJ_FLUSH_BUFFERS)
        return 0;
    return major == IRP_MJ_READ ? IRP_READ_OPERATION : IRP_WRITE_OPERATION;
}

}  // namespace

namespace machine {

void free_transfer_list(IRP& irp, const IO_STATUS_BLOCK& result)
{
    PMDL list = irp.MdlAddress;
    if (!list)
        return;
    if (result.Information > MmGetMdlByteCount(list))
        violation("a device transferred more bytes than the buffer has");
    irp.MdlAddress = nullptr;
    executive().system.free(list, list_tag);
}

}  // namespace machine

extern "C" {

PIRP NTAPI IoBuildSynchronousFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG bytes,
                                        PLARGE_INTEGER offset, PKEVENT event, PIO_STATUS_BLOCK status_block)
{
    enter_at_most(PASSIVE_LEVEL, "IoBuildSynchronousFsdRequest");
    check_arguments(major, *device, buffer, bytes, offset, event, status_block);
    if (executive().faults.hit(Operation::irp_allocate, "IoBuildSynchronousFsdRequest"))
        return nullptr;
    PIRP irp = new_own_request(device->StackSize, event, status_block);
    if (!irp)
        return nullptr;
    irp->MdlAddress = bytes ? describe(buffer, bytes) : nullptr;
    if (bytes && !irp->MdlAddress) {
        drop_own_request(irp);
        return nullptr;
    }
    irp->Flags = irp_flags(major);
    set_parameters(*IoGetNextIrpStackLocation(irp), major, bytes, offset);
    return irp;
}

}  // extern "C"
