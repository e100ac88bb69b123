// SPDX-License-Identifier: MIT
// The adapter and its miniport: start, the road of an SRB down and back, timers, resets.
//
// One thread at a time pumps: it finds the adapter without a pump, makes itself the pump, and makes all
// miniport calls that are due, its own and those that others ask for meanwhile, until nothing is due.
// The others only queue their work and leave. So the miniport is never entered twice, NextRequest from
// inside HwStartIo cannot recurse, and nobody spins while the miniport runs.
//
// Locks, in this order: the adapter lock, held around each miniport call; the queue lock, held for
// moments, for queues, slots and wishes. IRPs are completed at DISPATCH_LEVEL with neither held.
// "Pump's own" data belongs to whoever pumps; the start is a pump from the beginning to its end.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nt.h>

#include "machine/scheduler/scheduler.h"
#include "machine/scsiport/port_config.h"
#include "machine/scsiport/srb_slots.h"
#include "machine/scsiport/transfer_buffers.h"
#include "machine/scsiport/unit_queues.h"

namespace machine {

class Adapter {
public:
    explicit Adapter(const PortConfig& config) : config_(config) {}

    // ScsiPortInitialize: finds and starts the adapter. PASSIVE_LEVEL.
    NTSTATUS initialize(PDRIVER_OBJECT driver, const HW_INITIALIZATION_DATA& registration, PVOID context);
    // One more search, as for a further bus. Returns SP_RETURN_...
    ULONG search_again();

    bool started() const { return started_; }
    const PORT_CONFIGURATION_INFORMATION& configuration() const { return configuration_; }
    PDEVICE_OBJECT device() const { return device_; }
    PDRIVER_OBJECT driver() const { return driver_; }
    // A further device object of this driver, which takes the same requests. Null when there is none.
    PDEVICE_OBJECT create_device(DEVICE_TYPE type);

    // HwInitialize; what it returned.
    bool start_miniport();

    // An IRP with an SRB, at up to DISPATCH_LEVEL.
    NTSTATUS dispatch_scsi(PIRP irp);
    // ScsiPortNotification.
    void notify(SCSI_NOTIFICATION_TYPE type, PVOID device_extension, va_list arguments);

    // HwResetBus; waits for its end. PASSIVE_LEVEL.
    bool reset_bus();
    void release_queue(unsigned path, unsigned target, unsigned lun);
    bool frozen(unsigned lun) const;
    unsigned in_flight() const { return in_flight_; }
    unsigned bus_changes() const { return bus_changes_; }
    // SRBs that ran out of time, each followed by a bus reset.
    unsigned timeouts() const { return timeouts_; }

    // Called by the pump at DISPATCH_LEVEL, without locks, after BusChangeDetected.
    std::function<void()> on_bus_change;
    std::string arguments;  // of HwFindAdapter
    // Called at PASSIVE_LEVEL between HwFindAdapter and HwInitialize.
    std::function<void(PDRIVER_OBJECT)> before_initialize;

private:
    enum class Call { none, find_adapter, initialize, start_io, timer, reset_bus };
    struct ResetWish {
        KEVENT done;
        bool result = false;
        ResetWish* next = nullptr;
    };
    class InMiniport;

    void set_up_dispatch();
    PORT_CONFIGURATION_INFORMATION proposed_configuration() const;
    ULONG find_adapter(std::unique_ptr<std::byte[]>& extension, PORT_CONFIGURATION_INFORMATION& found);
    NTSTATUS check_configuration() const;
    void configure_queues();
    UCHAR refusal(const SCSI_REQUEST_BLOCK& srb) const;
    void pump();
    bool step();
    void start_next(PIRP irp);
    void run_timer();
    void run_resets();
    void return_completed();
    void settle(SrbSlot& slot);
    void lend_buffer(SrbSlot& slot);
    void take_buffer_back(SrbSlot& slot);
    bool holds_back() const;
    void hold_back_after_reset();
    bool retry_later(SrbSlot& slot);
    void request_complete(PSCSI_REQUEST_BLOCK srb);
    void request_timer(PHW_TIMER routine, ULONG delay_us);
    void timer_expired(std::uint32_t generation);
    void second_passed();

    const PortConfig config_;

    // Set by the start and unchanged from then on.
    Scheduler* scheduler_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT device_ = nullptr;
    HW_INITIALIZATION_DATA registration_{};
    PVOID hw_context_ = nullptr;
    std::unique_ptr<std::byte[]> device_extension_;
    PORT_CONFIGURATION_INFORMATION configuration_{};
    std::atomic<bool> started_ = false;

    mutable KSPIN_LOCK adapter_lock_{};
    std::atomic<Call> call_ = Call::none;
    std::atomic<Thread*> calling_thread_ = nullptr;
    std::atomic<PVOID> calling_extension_ = nullptr;

    // Pump's own.
    bool ready_for_next_ = true;
    bool undisturbed_ =
        false;             // an SRB that must not disconnect is down: nothing follows it until it is back
    Ticks hold_ends_ = 0;  // of the time after a reset in which nothing goes down
    TransferBuffers buffers_;
    bool bus_change_pending_ = false;
    SrbSlot* first_completed_ = nullptr;
    SrbSlot* last_completed_ = nullptr;

    // Under the queue lock.
    mutable KSPIN_LOCK queue_lock_{};
    bool pumping_ = true;  // until the adapter has started
    UnitQueues queues_;
    SrbSlots slots_;
    IrpList finished_;
    ResetWish* resets_ = nullptr;
    bool timeout_reset_ = false;
    PHW_TIMER timer_routine_ = nullptr;
    std::uint32_t timer_generation_ = 0;
    TimerId timer_ = 0;
    bool timer_due_ = false;
    bool seconds_wanted_ = false;  // something counts seconds
    bool seconds_armed_ = false;

    std::atomic<unsigned> in_flight_ = 0;
    std::atomic<unsigned> bus_changes_ = 0;
    std::atomic<unsigned> timeouts_ = 0;
};

}  // namespace machine
