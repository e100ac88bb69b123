// SPDX-License-Identifier: MIT
// A call into the miniport: from here to the end of the scope its notifications are in order.
#pragma once

#include "machine/scheduler/violation.h"
#include "machine/scsiport/adapter.h"

namespace machine {

class Adapter::InMiniport {
public:
    InMiniport(Adapter& adapter, Call call, PVOID device_extension)
        : adapter_(adapter), irql_(KeGetCurrentIrql())
    {
        adapter_.calling_thread_ = adapter_.scheduler_->current();
        adapter_.calling_extension_ = device_extension;
        adapter_.call_ = call;
    }

    // The miniport has returned.
    void check_irql() const
    {
        if (KeGetCurrentIrql() != irql_)
            violation("a miniport routine returned at another IRQL");
    }

    ~InMiniport() { adapter_.call_ = Call::none; }
    InMiniport(const InMiniport&) = delete;
    InMiniport& operator=(const InMiniport&) = delete;

private:
    Adapter& adapter_;
    KIRQL irql_;
};

}  // namespace machine
