// SPDX-License-Identifier: MIT
// Events, semaphores and waits. The signal state of every object is the one in its dispatcher header;
// a waiting thread is in the object's wait list with the wait block of its Thread.
#include <nt.h>

#include <algorithm>
#include <string>
#include <utility>

#include "machine/executive/checks.h"
#include "machine/executive/clock.h"
#include "machine/executive/semaphore_counts.h"
#include "machine/executive/threads.h"

using namespace machine;

namespace {

LONG highest_semaphore_count = 0;  // guarded by the dispatcher lock

enum ObjectType : UCHAR { notification_event = 0, synchronization_event = 1, semaphore = 5, thread = 6 };

[[noreturn]] void bad_object(const char* routine)
{
    violation(std::string(routine) + ": the object was never initialised, or is none of this kind");
}

void check_event(PRKEVENT event, const char* routine)
{
    if (!event || event->Header.Type > synchronization_event || !event->Header.WaitListHead.Flink)
        bad_object(routine);
}

// Takes what a satisfied wait takes from the object.
void consume(DISPATCHER_HEADER& header)
{
    if (header.Type == synchronization_event)
        header.SignalState = 0;
    else if (header.Type == semaphore)
        --header.SignalState;
}

// Wakes waiting threads in their order while the object is signalled. Dispatcher lock held.
void satisfy_waits(DISPATCHER_HEADER& header)
{
    while (header.SignalState > 0 && !IsListEmpty(&header.WaitListHead)) {
        auto* block = CONTAINING_RECORD(RemoveHeadList(&header.WaitListHead), KWAIT_BLOCK, WaitListEntry);
        block->Object = nullptr;
        consume(header);
        scheduler().wake(*reinterpret_cast<Thread*>(block->Thread));
    }
}

// What the thread has put off. Dispatcher lock held.
void satisfy_deferred(Thread& thread)
{
    if (DISPATCHER_HEADER* due = thread.deferred_wake.take())
        satisfy_waits(*due);
}

// Wakes who waits for a semaphore, or leaves it for later. Dispatcher lock held.
void satisfy_or_defer(Thread& thread, DISPATCHER_HEADER& header)
{
    if (IsListEmpty(&header.WaitListHead))
        return;
    if (!scheduler().defers_wakes() || thread.kind != Thread::Kind::spawned) {
        satisfy_waits(header);
        return;
    }
    if (DISPATCHER_HEADER* due = thread.deferred_wake.put_off(header, scheduler().cycles()))
        satisfy_waits(*due);
}

void check_may_wait(const Thread& thread, const char* routine)
{
    if (thread.kind == Thread::Kind::callback || thread.irql >= DISPATCH_LEVEL)
        violation(std::string(routine) + " waits at IRQL " + std::to_string(thread.irql));
    check_no_lock_held(thread, "while its owner waits");
}

// In a wait in user mode the thread's kernel stack can be paged out, with whatever others are given of it.
void check_mode(KPROCESSOR_MODE mode, const char* routine)
{
    if (mode != KernelMode)
        violation(std::string(routine) + " in user mode");
}

// A caller that promises to wait next comes back at raised IRQL with the dispatcher lock held.
void check_no_wait_follows(BOOLEAN wait, const char* routine)
{
    if (wait)
        violation(std::string(routine) + " with Wait set: the machine has no wait that follows at once");
}

// The time at which a wait ends; interval as the kernel takes it: negative relative, else absolute.
Ticks deadline_of(LONGLONG interval)
{
    if (interval >= 0)
        return tick_from(interval - system_boot_time());
    const Ticks now = time_of_last_tick();
    return interval < now - never ? never : tick_from(now - interval);
}

}  // namespace

namespace machine {

void wake_waiters()
{
    if (!this_thread || !this_thread->deferred_wake.pending())
        return;
    Thread& thread = self();
    DispatcherLock lock;
    satisfy_deferred(thread);
}

void signal_thread_object(Thread& ended)
{
    DispatcherLock lock;
    satisfy_deferred(ended);
    ended.header.SignalState = 1;
    satisfy_waits(ended.header);
}

std::int32_t take_highest_semaphore_count()
{
    DispatcherLock lock;
    return std::exchange(highest_semaphore_count, 0);
}

}  // namespace machine

extern "C" {

VOID NTAPI KeInitializeEvent(PRKEVENT event, EVENT_TYPE type, BOOLEAN state)
{
    event->Header.Type = type == NotificationEvent ? notification_event : synchronization_event;
    event->Header.Size = sizeof(KEVENT) / sizeof(ULONG);
    event->Header.SignalState = state;
    InitializeListHead(&event->Header.WaitListHead);
}

LONG NTAPI KeSetEvent(PRKEVENT event, KPRIORITY, BOOLEAN wait)
{
    enter_at_most(DISPATCH_LEVEL, "KeSetEvent");
    check_no_wait_follows(wait, "KeSetEvent");
    check_event(event, "KeSetEvent");
    LONG old;
    {
        DispatcherLock lock;
        old = event->Header.SignalState;
        event->Header.SignalState = 1;
        satisfy_waits(event->Header);
    }
    scheduler().preemption_point();
    return old;
}

LONG NTAPI KeResetEvent(PRKEVENT event)
{
    enter_at_most(DISPATCH_LEVEL, "KeResetEvent");
    check_event(event, "KeResetEvent");
    scheduler().preemption_point();
    DispatcherLock lock;
    const LONG old = event->Header.SignalState;
    event->Header.SignalState = 0;
    return old;
}

VOID NTAPI KeClearEvent(PRKEVENT event)
{
    KeResetEvent(event);
}

LONG NTAPI KeReadStateEvent(PRKEVENT event)
{
    enter_at_most(DISPATCH_LEVEL, "KeReadStateEvent");
    check_event(event, "KeReadStateEvent");
    scheduler().preemption_point();
    return *const_cast<volatile LONG*>(&event->Header.SignalState);
}

VOID NTAPI KeInitializeSemaphore(PRKSEMAPHORE object, LONG count, LONG limit)
{
    if (count < 0 || limit <= 0 || count > limit)
        violation("KeInitializeSemaphore with count " + std::to_string(count) + " and limit " +
                  std::to_string(limit));
    object->Header.Type = semaphore;
    object->Header.Size = sizeof(KSEMAPHORE) / sizeof(ULONG);
    object->Header.SignalState = count;
    object->Limit = limit;
    InitializeListHead(&object->Header.WaitListHead);
}

LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE object, KPRIORITY, LONG adjustment, BOOLEAN wait)
{
    Thread& caller = enter_at_most(DISPATCH_LEVEL, "KeReleaseSemaphore");
    check_no_wait_follows(wait, "KeReleaseSemaphore");
    if (!object || object->Header.Type != semaphore)
        bad_object("KeReleaseSemaphore");
    LONG old;
    bool over;
    {
        DispatcherLock lock;
        old = object->Header.SignalState;
        over = adjustment <= 0 || old > object->Limit - adjustment;
        if (!over) {
            object->Header.SignalState = old + adjustment;
            highest_semaphore_count = std::max<LONG>(highest_semaphore_count, old + adjustment);
            satisfy_or_defer(caller, object->Header);
        }
    }
    if (over)
        violation("KeReleaseSemaphore by " + std::to_string(adjustment) + " from " + std::to_string(old) +
                  " exceeds the limit of " + std::to_string(object->Limit));
    scheduler().preemption_point();
    return old;
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE object)
{
    enter_at_most(DISPATCH_LEVEL, "KeReadStateSemaphore");
    if (!object || object->Header.Type != semaphore)
        bad_object("KeReadStateSemaphore");
    scheduler().preemption_point();
    return *const_cast<volatile LONG*>(&object->Header.SignalState);
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID object, KWAIT_REASON, KPROCESSOR_MODE mode, BOOLEAN,
                                     PLARGE_INTEGER timeout)
{
    Thread& caller = enter_at_most(DISPATCH_LEVEL, "KeWaitForSingleObject");
    check_mode(mode, "KeWaitForSingleObject");
    auto* header = static_cast<DISPATCHER_HEADER*>(object);
    if (!header ||
        (header->Type > synchronization_event && header->Type != semaphore && header->Type != thread) ||
        !header->WaitListHead.Flink)
        bad_object("KeWaitForSingleObject");
    const bool poll = timeout && timeout->QuadPart == 0;
    if (!poll)
        check_may_wait(caller, "KeWaitForSingleObject");
    scheduler().preemption_point();

    DispatcherLock lock;
    if (header->SignalState > 0) {
        consume(*header);
        return STATUS_SUCCESS;
    }
    if (poll)
        return STATUS_TIMEOUT;
    const Ticks deadline = timeout ? deadline_of(timeout->QuadPart) : never;
    KWAIT_BLOCK& block = caller.wait_block;
    block.Thread = caller.object();
    block.Object = object;
    InsertTailList(&header->WaitListHead, &block.WaitListEntry);
    satisfy_deferred(caller);
    if (scheduler().block(deadline))
        return STATUS_SUCCESS;
    RemoveEntryList(&block.WaitListEntry);
    return STATUS_TIMEOUT;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE mode, BOOLEAN, PLARGE_INTEGER interval)
{
    Thread& caller = enter_at_most(APC_LEVEL, "KeDelayExecutionThread");
    check_mode(mode, "KeDelayExecutionThread");
    check_may_wait(caller, "KeDelayExecutionThread");
    scheduler().preemption_point();
    DispatcherLock lock;
    satisfy_deferred(caller);
    scheduler().block(deadline_of(interval->QuadPart));
    return STATUS_SUCCESS;
}

}  // extern "C"
