// SPDX-License-Identifier: MIT
#include "machine/scsiport/srb_slots.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr auto unused_fill = std::byte{0xB5};  // what a miniport finds in a new extension
constexpr auto retired_fill = std::byte{0xDD};
constexpr std::uintptr_t own_fill = 0xB5B5B5B5;  // in fields that are the port driver's
constexpr auto guard_fill = std::byte{0x6C};
constexpr std::size_t guard_bytes = 16;
constexpr std::size_t extension_alignment_bytes = 16;

bool all_equal(const std::byte* bytes, std::size_t count, std::byte value)
{
    return count == 0 || (bytes[0] == value && std::memcmp(bytes, bytes + 1, count - 1) == 0);
}

// A miniport says how an SRB ended in SrbStatus, ScsiStatus, DataTransferLength and SenseInfoBufferLength.
// The name of any other field that it changed, null when there is none.
const char* changed_field(const SCSI_REQUEST_BLOCK& before, const SCSI_REQUEST_BLOCK& after)
{
    const struct {
        const char* name;
        bool changed;
    } fields[] = {
        {"Length", before.Length != after.Length},
        {"Function", before.Function != after.Function},
        {"PathId", before.PathId != after.PathId},
        {"TargetId", before.TargetId != after.TargetId},
        {"Lun", before.Lun != after.Lun},
        {"QueueTag", before.QueueTag != after.QueueTag},
        {"QueueAction", before.QueueAction != after.QueueAction},
        {"CdbLength", before.CdbLength != after.CdbLength},
        {"SrbFlags", before.SrbFlags != after.SrbFlags},
        {"TimeOutValue", before.TimeOutValue != after.TimeOutValue},
        {"DataBuffer", before.DataBuffer != after.DataBuffer},
        {"SenseInfoBuffer", before.SenseInfoBuffer != after.SenseInfoBuffer},
        {"NextSrb", before.NextSrb != after.NextSrb},
        {"OriginalRequest", before.OriginalRequest != after.OriginalRequest},
        {"SrbExtension", before.SrbExtension != after.SrbExtension},
        {"QueueSortKey", before.QueueSortKey != after.QueueSortKey},
        {"Cdb", std::memcmp(before.Cdb, after.Cdb, sizeof before.Cdb) != 0},
    };
    const auto found = std::ranges::find_if(fields, [](const auto& field) { return field.changed; });
    return found == std::end(fields) ? nullptr : found->name;
}

}  // namespace

void SrbSlots::configure(unsigned count, std::uint32_t extension_bytes, bool strict)
{
    strict_ = strict;
    extension_bytes_ = extension_bytes;
    stride_bytes_ = (extension_bytes + guard_bytes + extension_alignment_bytes - 1) /
                    extension_alignment_bytes * extension_alignment_bytes;
    extensions_ = std::make_unique<std::byte[]>(stride_bytes_ * count);
    slots_ = std::vector<SrbSlot>(count);
    first_free_ = last_free_ = nullptr;
    available_ = 0;
    for (unsigned index = 0; index < count; ++index) {
        SrbSlot& slot = slots_[index];
        slot.extension = extensions_.get() + index * stride_bytes_;
        std::fill_n(slot.extension, extension_bytes, retired_fill);
        std::fill_n(slot.extension + extension_bytes, stride_bytes_ - extension_bytes, guard_fill);
        give_back(slot);
    }
}

SrbSlot& SrbSlots::take(PIRP irp, PSCSI_REQUEST_BLOCK srb)
{
    SrbSlot& slot = *first_free_;
    first_free_ = slot.next;
    --available_;
    if (strict_) {
        if (!all_equal(slot.extension, extension_bytes_, retired_fill))
            violation("an SRB extension was written after its SRB was complete");
        std::memset(slot.extension, static_cast<int>(unused_fill), extension_bytes_);
    }
    slot.srb = srb;
    slot.irp = irp;
    slot.requested_bytes = srb->DataTransferLength;
    slot.complete = false;
    srb->SrbExtension = slot.extension;
    slot.original_request = srb->OriginalRequest;
    slot.next_srb = srb->NextSrb;
    slot.queue_sort_key = srb->QueueSortKey;
    slot.data_buffer = srb->DataBuffer;
    if (strict_) {
        srb->OriginalRequest = reinterpret_cast<PVOID>(own_fill);
        srb->NextSrb = reinterpret_cast<PSCSI_REQUEST_BLOCK>(own_fill);
        srb->QueueSortKey = own_fill;
    }
    return slot;
}

void SrbSlots::restore(SrbSlot& slot)
{
    PSCSI_REQUEST_BLOCK srb = slot.srb;
    srb->SrbExtension = nullptr;
    srb->OriginalRequest = slot.original_request;
    srb->NextSrb = slot.next_srb;
    srb->QueueSortKey = slot.queue_sort_key;
    srb->DataBuffer = slot.data_buffer;
}

// Slots go to the end of the list, so that an extension rests as long as possible before its next use
// and a late write is seen.
void SrbSlots::give_back(SrbSlot& slot)
{
    slot.srb = nullptr;
    slot.irp = nullptr;
    slot.next = nullptr;
    if (first_free_ == nullptr)
        first_free_ = &slot;
    else
        last_free_->next = &slot;
    last_free_ = &slot;
    ++available_;
}

SrbSlot* SrbSlots::find(const SCSI_REQUEST_BLOCK* srb)
{
    const auto extension = reinterpret_cast<std::uintptr_t>(srb->SrbExtension);
    const std::uintptr_t offset = extension - reinterpret_cast<std::uintptr_t>(extensions_.get());
    const std::size_t index = offset / stride_bytes_;
    if (index >= slots_.size() || offset % stride_bytes_ != 0 || slots_[index].srb != srb)
        return nullptr;
    return &slots_[index];
}

void SrbSlots::hand_over(SrbSlot& slot)
{
    if (strict_)
        slot.on_the_way_down = *slot.srb;
}

void SrbSlots::retire(SrbSlot& slot)
{
    slot.complete = true;
    if (!strict_)
        return;
    if (const char* field = changed_field(slot.on_the_way_down, *slot.srb))
        violation(std::string("the miniport changed an SRB's ") + field + ", which is the port driver's");
    if (!all_equal(slot.extension + extension_bytes_, stride_bytes_ - extension_bytes_, guard_fill))
        violation("the miniport wrote beyond the end of an SRB extension");
    std::memset(slot.extension, static_cast<int>(retired_fill), extension_bytes_);
    slot.at_completion = *slot.srb;
}

void SrbSlots::check_untouched(const SrbSlot& slot) const
{
    if (strict_ && std::memcmp(&slot.at_completion, slot.srb, sizeof(*slot.srb)) != 0)
        violation("an SRB was changed after RequestComplete");
}

}  // namespace machine
