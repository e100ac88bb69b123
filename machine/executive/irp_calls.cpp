// SPDX-License-Identifier: MIT
#include "machine/executive/irp_calls.h"

#include <algorithm>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

bool marked(const IO_STACK_LOCATION& location)
{
    return (location.Control & SL_PENDING_RETURNED) != 0;
}

void check(bool location_marked, bool pending)
{
    if (location_marked && !pending)
        violation("a dispatch routine marked its IRP pending and did not return STATUS_PENDING");
    if (pending && !location_marked)
        violation("a dispatch routine returned STATUS_PENDING for an IRP that it did not mark pending");
}

}  // namespace

void IrpCalls::begin(const IO_STACK_LOCATION* location, Call& call)
{
    std::lock_guard guard(lock_);
    under_way_[location].push_back({&call, false});
}

void IrpCalls::end(const IO_STACK_LOCATION* location, const Call& call, NTSTATUS status)
{
    const bool pending = status == STATUS_PENDING;
    bool location_marked;
    {
        std::lock_guard guard(lock_);
        if (call.complete) {
            location_marked = call.marked;
        } else {
            Entry& entry = *std::ranges::find(under_way_[location], &call, &Entry::call);
            entry = {nullptr, pending};
            // Who passed the request on marks it when it comes back up, at the latest.
            location_marked = marked(*location) || pending;
        }
    }
    check(location_marked, pending);
}

void IrpCalls::complete(const IO_STACK_LOCATION* location)
{
    bool kept = false;
    {
        std::lock_guard guard(lock_);
        const auto found = under_way_.find(location);
        if (found == under_way_.end())
            return;
        for (const Entry& entry : found->second)
            if (entry.call)
                *entry.call = {.complete = true, .marked = marked(*location)};
            else
                kept |= entry.pending;
        under_way_.erase(found);
    }
    if (kept)
        check(marked(*location), true);
}

}  // namespace machine
