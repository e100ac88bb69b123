// SPDX-License-Identifier: MIT
// Whether dispatch routines tell the truth about requests that they keep: a routine returns STATUS_PENDING
// for an IRP that it marked pending, and for no other. What it returns and whether it marked the IRP are
// known at different times: the request may be complete, and its IRP gone, before the routine has returned.
// Any thread may call.
#pragma once

#include <mutex>
#include <unordered_map>
#include <vector>

#include <nt.h>

namespace machine {

class IrpCalls {
public:
    // A call of a dispatch routine. On the stack of IofCallDriver, from the call to the routine's return.
    struct Call {
        bool complete = false;  // the stack location was given back meanwhile,
        bool marked = false;    // with this mark
    };

    // The routine of this location is about to be called.
    void begin(const IO_STACK_LOCATION* location, Call& call);
    // It returned.
    void end(const IO_STACK_LOCATION* location, const Call& call, NTSTATUS status);
    // The location is about to be given back, on the request's way up.
    void complete(const IO_STACK_LOCATION* location);

private:
    struct Entry {
        Call* call;  // null once the routine has returned
        bool pending;
    };

    std::mutex lock_;
    // A filter that lends its own location to the driver below has two calls of one location.
    std::unordered_map<const IO_STACK_LOCATION*, std::vector<Entry>> under_way_;
};

}  // namespace machine
