// SPDX-License-Identifier: MIT
// What the port driver keeps for each SRB in the miniport's hands: the SRB extension and the record of
// its flight. All of them are made when the adapter starts; a request allocates nothing.
//
// take() and give_back() under the queue lock; find() and retire() in the miniport's context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <nt.h>

#include "machine/scheduler/scheduler.h"
#include "machine/scsiport/transfer_buffers.h"

namespace machine {

struct Unit;

struct SrbSlot {
    PSCSI_REQUEST_BLOCK srb = nullptr;  // null: the slot is free
    PIRP irp = nullptr;
    Unit* unit = nullptr;
    Ticks deadline = never;
    std::uint32_t requested_bytes = 0;  // DataTransferLength on the way down
    std::uint8_t tag = SP_UNTAGGED;
    bool bypass = false;
    bool undisturbed = false;  // SRB_FLAGS_DISABLE_DISCONNECT
    bool complete = false;     // the miniport has completed it; it is on its way back to the sender
    std::byte* extension = nullptr;
    SrbSlot* next = nullptr;
    SCSI_REQUEST_BLOCK on_the_way_down{};  // strict: the SRB as the miniport got it
    SCSI_REQUEST_BLOCK at_completion{};    // strict: the SRB as the miniport completed it
    // Fields that are the port driver's own while the SRB is down, as the sender set them.
    PVOID original_request = nullptr;
    PSCSI_REQUEST_BLOCK next_srb = nullptr;
    ULONG queue_sort_key = 0;
    PVOID data_buffer = nullptr;
    TransferBuffers::Loan loan;  // what stands for the sender's data buffer
};

class SrbSlots {
public:
    // strict: extensions are never clean when they are handed out, and are watched for writes beyond
    // their end and after completion; fields of an SRB that are the port driver's hold nothing of use to
    // others.
    void configure(unsigned count, std::uint32_t extension_bytes, bool strict);

    unsigned available() const { return available_; }
    // Puts the SRB into a free slot (there is one) and gives it its extension.
    SrbSlot& take(PIRP irp, PSCSI_REQUEST_BLOCK srb);
    void give_back(SrbSlot& slot);

    // The slot that carries this SRB, null when the SRB is not in the miniport's hands.
    SrbSlot* find(const SCSI_REQUEST_BLOCK* srb);
    // The SRB goes to the miniport as it is now.
    void hand_over(SrbSlot& slot);
    // The miniport has completed the slot's SRB: from here on it must touch neither SRB nor extension.
    // Strict: stops when it changed what is not its to change.
    void retire(SrbSlot& slot);
    // Strict: stops when the SRB was changed since retire().
    void check_untouched(const SrbSlot& slot) const;
    // Gives the sender the fields back that the port driver used.
    void restore(SrbSlot& slot);

    std::vector<SrbSlot>& all() { return slots_; }

private:
    std::uint32_t extension_bytes_ = 0;
    std::size_t stride_bytes_ = 1;
    bool strict_ = true;
    std::unique_ptr<std::byte[]> extensions_;
    std::vector<SrbSlot> slots_;
    SrbSlot* first_free_ = nullptr;
    SrbSlot* last_free_ = nullptr;
    unsigned available_ = 0;
};

}  // namespace machine
