// SPDX-License-Identifier: MIT
#include "machine/executive/threads.h"

#include <string>
#include <system_error>
#include <utility>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/paged_pool.h"

namespace machine {
namespace {

constexpr KPRIORITY highest_priority = 31;

// Where PsTerminateSystemThread arrives; the frames above it are the driver's, and stay as they are.
void run_until_end(Thread& thread, const std::function<void()>& body)
{
    if (setjmp(thread.end) == 0)
        body();
}

class Entry final : public KernelEntry {
    void run_thread(Thread& thread, const std::function<void()>& body) override
    {
        run_until_end(thread, body);
        if (thread.irql != PASSIVE_LEVEL)
            violation("a thread ended at IRQL " + std::to_string(thread.irql));
        check_no_lock_held(thread, "while its owner ends");
        signal_thread_object(thread);
    }

    void run_callback(Thread& context, const std::function<void()>& callback) override
    {
        leave_paged_memory();
        callback();
        if (context.irql != DISPATCH_LEVEL)
            violation("a timer callback returned at IRQL " + std::to_string(context.irql));
        check_no_lock_held(context, "after a timer callback");
    }
};

}  // namespace

KernelEntry& kernel_entry()
{
    static Entry entry;
    return entry;
}

}  // namespace machine

using namespace machine;

extern "C" {

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE handle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID,
                                    PKSTART_ROUTINE routine, PVOID context)
{
    enter_at_most(PASSIVE_LEVEL, "PsCreateSystemThread");
    ExecutiveState& kernel = executive();
    if (kernel.faults.hit(Operation::thread_create, ""))
        return STATUS_INSUFFICIENT_RESOURCES;
    Thread* thread = nullptr;
    try {
        thread = &kernel.scheduler->spawn("system thread " + std::to_string(kernel.objects.next_number()),
                                          [routine, context] { routine(context); });
    } catch (const std::system_error&) {  // the host has no more
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    kernel.objects.add(thread, ObjectKind::thread, nullptr);
    *handle = kernel.objects.open(thread);
    scheduler().preemption_point();
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS)
{
    Thread& thread = enter_at_most(PASSIVE_LEVEL, "PsTerminateSystemThread");
    if (thread.kind != Thread::Kind::spawned)
        violation("PsTerminateSystemThread in a thread that is no system thread");
    std::longjmp(thread.end, 1);
}

PKTHREAD NTAPI KeGetCurrentThread()
{
    return self().object();
}

KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD object, KPRIORITY priority)
{
    enter_at_most(DISPATCH_LEVEL, "KeSetPriorityThread");
    if (priority < 1 || priority > highest_priority)
        violation("KeSetPriorityThread with priority " + std::to_string(priority));
    return std::exchange(reinterpret_cast<Thread*>(object)->priority, priority);
}

}  // extern "C"
