// SPDX-License-Identifier: MIT
#include "machine/executive/own_request.h"

#include "machine/executive/irp.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr UCHAR irp_is_ours = 0x40;  // in IRP::AllocationFlags

}  // namespace

PIRP new_own_request(CCHAR stack_size, PKEVENT event, PIO_STATUS_BLOCK status_block)
{
    PIRP irp = new_irp(stack_size, sizeof(OwnRequest));
    if (!irp)
        return nullptr;
    irp->AllocationFlags = irp_is_ours;
    irp->UserEvent = event;
    irp->UserIosb = status_block;
    irp->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(KeGetCurrentThread());
    return irp;
}

void drop_own_request(PIRP irp)
{
    free_irp(irp);
}

bool is_own_request(const IRP& irp)
{
    return (irp.AllocationFlags & irp_is_ours) != 0;
}

OwnRequest& own_request(IRP& irp)
{
    return *reinterpret_cast<OwnRequest*>(reinterpret_cast<UCHAR*>(&irp) + irp.Size);
}

void end_own_request(PIRP irp)
{
    if (!is_own_request(*irp))
        violation("the completion of an IRP that a driver allocated ran to its end: the driver's completion "
                  "routine must return STATUS_MORE_PROCESSING_REQUIRED");
    const IO_STATUS_BLOCK result = irp->IoStatus;
    // A request that failed at once tells its requester so by its status alone.
    const bool reported = !NT_ERROR(result.Status) || irp->PendingReturned;
    give_control_output(*irp, result);
    free_transfer_list(*irp, result);
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
