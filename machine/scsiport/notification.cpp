// SPDX-License-Identifier: MIT
// What the miniport tells the port driver.
#include <cstdarg>

#include "machine/scheduler/violation.h"
#include "machine/scsiport/adapter.h"
#include "machine/scsiport/internals.h"
#include "machine/scsiport/lock_guards.h"
#include "machine/scsiport/scsi_port.h"

namespace machine {

void Adapter::notify(SCSI_NOTIFICATION_TYPE type, PVOID device_extension, va_list arguments)
{
    if (call_ == Call::none || calling_thread_ != scheduler_->current())
        violation("ScsiPortNotification " + std::to_string(type) + " outside the miniport's context");
    if (device_extension != calling_extension_)
        violation("ScsiPortNotification with another device extension");
    switch (type) {
    case RequestComplete:
        request_complete(va_arg(arguments, PSCSI_REQUEST_BLOCK));
        break;
    case NextRequest:
    case NextLuRequest:
        ready_for_next_ = true;
        break;
    case RequestTimerCall: {
        auto routine = va_arg(arguments, PHW_TIMER);
        request_timer(routine, va_arg(arguments, ULONG));
        break;
    }
    case BusChangeDetected:
        ++bus_changes_;
        bus_change_pending_ = true;
        break;
    case ResetDetected:
        break;
    default:
        violation("ScsiPortNotification " + std::to_string(type) + " is not one this port driver knows");
    }
}

void Adapter::request_complete(PSCSI_REQUEST_BLOCK srb)
{
    SrbSlot* slot = srb == nullptr ? nullptr : slots_.find(srb);
    if (slot == nullptr)
        violation("RequestComplete for an SRB that is not in flight");
    if (slot->complete)
        violation("RequestComplete twice for one SRB");
    if (SRB_STATUS(srb->SrbStatus) == SRB_STATUS_PENDING)
        violation("RequestComplete for an SRB with SRB_STATUS_PENDING");
    if (srb->DataTransferLength > slot->requested_bytes)
        violation("an SRB was completed with more data than it asked for");
    slots_.retire(*slot);
    take_buffer_back(*slot);
    slot->next = nullptr;
    if (first_completed_ == nullptr)
        first_completed_ = slot;
    else
        last_completed_->next = slot;
    last_completed_ = slot;
}

// The adapter has one timer: a new request replaces the last one, and a delay of 0 only cancels it.
void Adapter::request_timer(PHW_TIMER routine, ULONG delay_us)
{
    if (routine == nullptr && delay_us != 0)
        violation("RequestTimerCall without a routine");
    std::uint32_t generation = 0;
    {
        SpinLockHold hold(queue_lock_);
        generation = ++timer_generation_;
        timer_routine_ = routine;
        timer_due_ = false;
    }
    if (timer_ != 0)
        scheduler_->cancel(timer_);
    timer_ = 0;
    if (delay_us != 0)
        timer_ = scheduler_->call_at(scheduler_->now() + Ticks{delay_us} * ticks_per_us,
                                     [this, generation] { timer_expired(generation); });
}

// A timer that comes before the adapter has started stays due until then.
void Adapter::timer_expired(std::uint32_t generation)
{
    SpinLockHoldAtDispatch hold(queue_lock_);
    if (generation != timer_generation_)
        return;
    timer_due_ = true;
    pump();
}

}  // namespace machine

extern "C" VOID __cdecl ScsiPortNotification(SCSI_NOTIFICATION_TYPE type, PVOID device_extension, ...)
{
    va_list arguments;
    va_start(arguments, device_extension);
    machine::ScsiPort::Internals::current().adapter.notify(type, device_extension, arguments);
    va_end(arguments);
}
