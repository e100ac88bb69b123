// SPDX-License-Identifier: MIT
#include "machine/scheduler/thread.h"

#include <unistd.h>

#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/violation.h"

namespace machine {

std::atomic<KernelScheduler*> active_scheduler = nullptr;
constinit thread_local Thread* this_thread = nullptr;

namespace {
constexpr UCHAR thread_object_type = 6;
}

Thread::Thread(Kind thread_kind, std::string thread_name, KernelScheduler* scheduler)
    : owner(scheduler), kind(thread_kind),
      irql(thread_kind == Kind::callback ? DISPATCH_LEVEL : PASSIVE_LEVEL), name(std::move(thread_name))
{
    header.Type = thread_object_type;
    header.Size = sizeof header / sizeof(ULONG);
    InitializeListHead(&header.WaitListHead);
}

Thread& find_self()
{
    Thread* thread = this_thread;
    // A thread of a machine that is off has nowhere to go: its stack holds the driver's frames.
    if (thread && thread->kind == Thread::Kind::spawned && !thread->owner.load()) {
        thread->gone = true;
        for (;;)
            pause();
    }
    KernelScheduler* active = active_scheduler.load();
    if (!active)
        violation("a kernel routine was called while no machine exists");
    return active->context();
}

}  // namespace machine
