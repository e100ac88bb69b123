// SPDX-License-Identifier: MIT
// A first-in first-out list of IRPs, linked through the entry that an IRP's present owner may use. No
// lock of its own.
#pragma once

#include <nt.h>

namespace machine {

class IrpList {
public:
    bool empty() const { return first_ == nullptr; }

    void push_back(PIRP irp)
    {
        link(irp) = nullptr;
        if (empty())
            first_ = irp;
        else
            link(last_) = &irp->Tail.Overlay.ListEntry;
        last_ = irp;
    }

    void push_front(PIRP irp)
    {
        if (empty())
            last_ = irp;
        link(irp) = empty() ? nullptr : &first_->Tail.Overlay.ListEntry;
        first_ = irp;
    }

    // Null when the list is empty.
    PIRP pop_front()
    {
        PIRP irp = first_;
        if (irp != nullptr) {
            PLIST_ENTRY next = link(irp);
            first_ = next == nullptr ? nullptr : CONTAINING_RECORD(next, IRP, Tail.Overlay.ListEntry);
        }
        return irp;
    }

private:
    static PLIST_ENTRY& link(PIRP irp) { return irp->Tail.Overlay.ListEntry.Flink; }

    PIRP first_ = nullptr;
    PIRP last_ = nullptr;
};

inline PSCSI_REQUEST_BLOCK srb_of(PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->Parameters.Scsi.Srb;
}

}  // namespace machine
