// SPDX-License-Identifier: MIT
#include "machine/scsiport/adapter.h"

#include "machine/executive/checks.h"
#include "machine/scsiport/in_miniport.h"
#include "machine/scsiport/lock_guards.h"

namespace machine {
namespace {

// Slots beyond what the queues let down, for SRBs that bypass frozen queues.
constexpr unsigned bypass_slots = 32;
// A unit that answers BUSY this often in a row gets its answer through to the sender.
constexpr unsigned busy_retries_max = 20;
constexpr ULONG no_timeout = 0xFFFFFFFF;

NTSTATUS status_of(UCHAR srb_status)
{
    switch (SRB_STATUS(srb_status)) {
    case SRB_STATUS_SUCCESS:
        return STATUS_SUCCESS;
    case SRB_STATUS_INVALID_LUN:
    case SRB_STATUS_INVALID_TARGET_ID:
    case SRB_STATUS_INVALID_PATH_ID:
    case SRB_STATUS_NO_DEVICE:
    case SRB_STATUS_NO_HBA:
        return STATUS_NO_SUCH_DEVICE;
    case SRB_STATUS_INVALID_REQUEST:
    case SRB_STATUS_BAD_FUNCTION:
    case SRB_STATUS_BAD_SRB_BLOCK_LENGTH:
        return STATUS_INVALID_DEVICE_REQUEST;
    case SRB_STATUS_TIMEOUT:
    case SRB_STATUS_COMMAND_TIMEOUT:
        return STATUS_IO_TIMEOUT;
    case SRB_STATUS_BUSY:
        return STATUS_DEVICE_BUSY;
    default:
        return STATUS_IO_DEVICE_ERROR;
    }
}

void set_result(PIRP irp, const SCSI_REQUEST_BLOCK& srb)
{
    irp->IoStatus.Status = status_of(srb.SrbStatus);
    irp->IoStatus.Information = srb.DataTransferLength;
}

bool busy(const SCSI_REQUEST_BLOCK& srb)
{
    return SRB_STATUS(srb.SrbStatus) == SRB_STATUS_BUSY || srb.ScsiStatus == SCSISTAT_BUSY ||
           srb.ScsiStatus == SCSISTAT_QUEUE_FULL;
}

}  // namespace

void Adapter::configure_queues()
{
    const unsigned luns = configuration_.MaximumNumberOfLogicalUnits;
    const unsigned depth = configuration_.MultipleRequestPerLu ? unit_depth : 1;
    queues_.configure(luns, depth, config_.feeding == Feeding::held_back);
    slots_.configure((luns + 1) * depth + bypass_slots, configuration_.SrbExtensionSize, strict_checks);
}

// The status that a request gets without going to the miniport; SRB_STATUS_PENDING when it may go.
UCHAR Adapter::refusal(const SCSI_REQUEST_BLOCK& srb) const
{
    if (srb.Length != sizeof(srb))
        return SRB_STATUS_BAD_SRB_BLOCK_LENGTH;
    if (!started_)
        return SRB_STATUS_NO_HBA;
    const bool no_data = srb.DataBuffer == nullptr && srb.DataTransferLength != 0;
    const bool too_long = srb.DataTransferLength > configuration_.MaximumTransferLength;
    if ((config_.checks_transfers && (no_data || too_long)) || srb.CdbLength > sizeof(srb.Cdb))
        return SRB_STATUS_INVALID_REQUEST;
    return SRB_STATUS_PENDING;
}

// Ends a request that does not go to the miniport.
static NTSTATUS complete_here(PIRP irp, PSCSI_REQUEST_BLOCK srb, UCHAR srb_status)
{
    srb->SrbStatus = srb_status;
    set_result(irp, *srb);
    const NTSTATUS status = irp->IoStatus.Status;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Adapter::dispatch_scsi(PIRP irp)
{
    PSCSI_REQUEST_BLOCK srb = srb_of(irp);
    if (srb == nullptr || srb->OriginalRequest != irp)
        violation("an IRP without an SRB whose OriginalRequest it is was sent to the adapter");
    if (const UCHAR refused = refusal(*srb); refused != SRB_STATUS_PENDING)
        return complete_here(irp, srb, refused);
    if (srb->Function == SRB_FUNCTION_RELEASE_QUEUE) {
        release_queue(srb->PathId, srb->TargetId, srb->Lun);
        return complete_here(irp, srb, SRB_STATUS_SUCCESS);
    }

    srb->SrbStatus = SRB_STATUS_PENDING;
    IoMarkIrpPending(irp);
    SpinLockHoldAtDispatch hold(queue_lock_);
    if (slots_.find(srb) != nullptr)
        violation("an SRB was sent again while it is in flight");
    queues_.add(irp);
    pump();
    return STATUS_PENDING;
}

// Makes every miniport call that is due, unless another thread is at it. Called with the queue lock
// held, at DISPATCH_LEVEL from before it was taken; lets go of it around the calls.
void Adapter::pump()
{
    if (pumping_)
        return;
    pumping_ = true;
    while (step()) {
    }
    pumping_ = false;
}

// One piece of work; false when none is due.
bool Adapter::step()
{
    if (resets_ != nullptr || timeout_reset_) {
        run_resets();
    } else if (timer_due_) {
        run_timer();
    } else if (bus_change_pending_) {
        bus_change_pending_ = false;
        SpinLockPause pause(queue_lock_);
        on_bus_change();
    } else if (seconds_wanted_ && !seconds_armed_) {
        seconds_armed_ = true;
        SpinLockPause pause(queue_lock_);
        scheduler_->call_at(scheduler_->now() + ticks_per_second, [this] { second_passed(); });
    } else {
        PIRP irp = nullptr;
        if (ready_for_next_ && !undisturbed_ && !holds_back() && slots_.available() != 0)
            irp = queues_.next();
        if (irp == nullptr)
            return false;
        start_next(irp);
    }
    return_completed();
    return true;
}

void Adapter::start_next(PIRP irp)
{
    PSCSI_REQUEST_BLOCK srb = srb_of(irp);
    SrbSlot& slot = slots_.take(irp, srb);
    slot.unit = &queues_.unit_of(*srb);
    slot.bypass = UnitQueues::bypasses(*srb);
    slot.deadline = never;
    if (srb->TimeOutValue != 0 && srb->TimeOutValue != no_timeout) {
        slot.deadline = scheduler_->now() + srb->TimeOutValue * ticks_per_second;
        seconds_wanted_ = true;
    }
    const bool tagged =
        configuration_.TaggedQueuing && !slot.bypass && (srb->SrbFlags & SRB_FLAGS_QUEUE_ACTION_ENABLE) != 0;
    slot.tag = tagged ? UnitQueues::take_tag(*slot.unit) : SP_UNTAGGED;
    srb->QueueTag = slot.tag;
    slot.undisturbed = (srb->SrbFlags & SRB_FLAGS_DISABLE_DISCONNECT) != 0;
    undisturbed_ = slot.undisturbed;
    ++in_flight_;

    SpinLockPause pause(queue_lock_);
    lend_buffer(slot);
    slots_.hand_over(slot);
    SpinLockHold hold(adapter_lock_);
    ready_for_next_ = false;
    InMiniport call(*this, Call::start_io, device_extension_.get());
    if (!registration_.HwStartIo(device_extension_.get(), srb))
        violation("HwStartIo returned FALSE");
    call.check_irql();
}

// An IO_CONTROL's buffer is its sender's own, a completion notice's the miniport's. Without MapBuffers a
// buffer is known to the miniport by its physical pages alone, and its address is not to be used.
void Adapter::lend_buffer(SrbSlot& slot)
{
    PSCSI_REQUEST_BLOCK srb = slot.srb;
    if (srb->Function != SRB_FUNCTION_EXECUTE_SCSI || srb->DataBuffer == nullptr)
        return;
    const ULONG direction = srb->SrbFlags & (SRB_FLAGS_DATA_IN | SRB_FLAGS_DATA_OUT);
    Access access = direction == SRB_FLAGS_DATA_OUT ? Access::read : Access::read_write;
    if (!configuration_.MapBuffers)
        access = Access::none;
    else if (!config_.takes_buffers_away)
        return;
    slot.loan = buffers_.lend(*srb, access);
    srb->DataBuffer = slot.loan.data;
}

// The SRB still names the pages until it goes back to its sender.
void Adapter::take_buffer_back(SrbSlot& slot)
{
    if (slot.loan.area == nullptr)
        return;
    buffers_.take_back(slot.loan);
}

// As a real bus needs some time after a reset.
void Adapter::hold_back_after_reset()
{
    const Ticks hold = config_.reset_hold_100ns;
    if (hold == 0)
        return;
    hold_ends_ = scheduler_->now() + hold;
    scheduler_->call_at(hold_ends_, [this] {
        SpinLockHoldAtDispatch guard(queue_lock_);
        pump();
    });
}

bool Adapter::holds_back() const
{
    return hold_ends_ != 0 && scheduler_->now() < hold_ends_;
}

void Adapter::run_timer()
{
    timer_due_ = false;
    PHW_TIMER routine = timer_routine_;
    SpinLockPause pause(queue_lock_);
    SpinLockHold hold(adapter_lock_);
    InMiniport call(*this, Call::timer, device_extension_.get());
    routine(device_extension_.get());
    call.check_irql();
}

void Adapter::run_resets()
{
    ResetWish* wishes = resets_;
    resets_ = nullptr;
    timeout_reset_ = false;
    SpinLockPause pause(queue_lock_);
    bool result = false;
    {
        SpinLockHold hold(adapter_lock_);
        InMiniport call(*this, Call::reset_bus, device_extension_.get());
        result = registration_.HwResetBus(device_extension_.get(), 0);
        call.check_irql();
    }
    hold_back_after_reset();
    while (wishes != nullptr) {
        ResetWish& wish = *wishes;
        wishes = wish.next;
        wish.result = result;
        KeSetEvent(&wish.done, IO_NO_INCREMENT, FALSE);
    }
}

// Sends back what the miniport completed in its last call.
void Adapter::return_completed()
{
    while (first_completed_ != nullptr) {
        SrbSlot& slot = *first_completed_;
        first_completed_ = slot.next;
        settle(slot);
    }
    if (finished_.empty())
        return;
    IrpList finished = finished_;
    finished_ = {};
    SpinLockPause pause(queue_lock_);
    while (PIRP irp = finished.pop_front())
        IofCompleteRequest(irp, IO_DISK_INCREMENT);
}

// Ends the flight of an SRB: its slot is free again, and its IRP is on the list of finished ones or
// back in the queue.
void Adapter::settle(SrbSlot& slot)
{
    slots_.check_untouched(slot);
    PSCSI_REQUEST_BLOCK srb = slot.srb;
    Unit& unit = *slot.unit;
    if (slot.tag != SP_UNTAGGED)
        UnitQueues::give_back_tag(unit, slot.tag);
    if (!slot.bypass)
        --unit.active;
    slots_.restore(slot);
    if (slot.undisturbed)
        undisturbed_ = false;
    --in_flight_;
    if (!retry_later(slot)) {
        srb->SrbStatus &= static_cast<UCHAR>(~SRB_STATUS_QUEUE_FROZEN);
        const bool failed = SRB_STATUS(srb->SrbStatus) != SRB_STATUS_SUCCESS;
        if (failed && (srb->SrbFlags & SRB_FLAGS_NO_QUEUE_FREEZE) == 0) {
            unit.frozen = true;
            srb->SrbStatus |= SRB_STATUS_QUEUE_FROZEN;
        }
        set_result(slot.irp, *srb);
        finished_.push_back(slot.irp);
        unit.held = false;
        unit.busy_retries = 0;
    }
    slots_.give_back(slot);
    queues_.draw(unit);
}

// A unit that is busy gets its SRB again, after its next completion or in a second.
bool Adapter::retry_later(SrbSlot& slot)
{
    Unit& unit = *slot.unit;
    if (!busy(*slot.srb) || slot.bypass || unit.busy_retries == busy_retries_max)
        return false;
    ++unit.busy_retries;
    unit.held = true;
    slot.srb->SrbStatus = SRB_STATUS_PENDING;
    slot.srb->ScsiStatus = SCSISTAT_GOOD;
    slot.srb->DataTransferLength = slot.requested_bytes;
    queues_.put_back(unit, slot.irp);
    seconds_wanted_ = true;
    return true;
}

// Every second while an SRB with a time limit is in flight or a unit is busy.
void Adapter::second_passed()
{
    const Ticks now = scheduler_->now();
    SpinLockHoldAtDispatch hold(queue_lock_);
    seconds_armed_ = false;
    seconds_wanted_ = false;
    queues_.release_held();
    for (SrbSlot& slot : slots_.all()) {
        if (slot.srb == nullptr || slot.deadline == never)
            continue;
        seconds_wanted_ = true;
        if (slot.deadline > now)
            continue;
        ++timeouts_;
        if (!config_.srbs_may_time_out)
            violation("an SRB of LUN " + std::to_string(slot.srb->Lun) + " ran out of its " +
                      std::to_string(slot.srb->TimeOutValue) + " s");
        timeout_reset_ = true;
        slot.deadline = now + slot.srb->TimeOutValue * ticks_per_second;
    }
    pump();
}

bool Adapter::reset_bus()
{
    if (!started_)
        return false;
    ResetWish wish;
    KeInitializeEvent(&wish.done, NotificationEvent, FALSE);
    {
        SpinLockHoldAtDispatch hold(queue_lock_);
        wish.next = resets_;
        resets_ = &wish;
        pump();
    }
    KeWaitForSingleObject(&wish.done, Executive, KernelMode, FALSE, nullptr);
    return wish.result;
}

void Adapter::release_queue(unsigned path, unsigned target, unsigned lun)
{
    if (!started_)
        return;
    SpinLockHoldAtDispatch hold(queue_lock_);
    Unit& unit = queues_.unit_at(path, target, lun);
    unit.frozen = false;
    queues_.refresh(unit);
    pump();
}

bool Adapter::frozen(unsigned lun) const
{
    if (!started_)
        return false;
    SpinLockHold hold(queue_lock_);
    return queues_.unit_at(0, 0, lun).frozen;
}

}  // namespace machine
