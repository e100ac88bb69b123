// SPDX-License-Identifier: MIT
// What the executive needs of a scheduler beyond the public interface, and the way to the calling
// thread, which every kernel routine takes first.
#pragma once

#include <atomic>

#include "machine/scheduler/kernel_entry.h"
#include "machine/scheduler/scheduler.h"
#include "machine/scheduler/thread.h"

namespace machine {

class KernelScheduler : public Scheduler {
public:
    KernelScheduler(bool interleaves, KernelEntry& entry) : interleaves_(interleaves), entry_(entry) {}

    KernelEntry& entry() { return entry_; }

    // preempt() for the kernel routines, which on the real scheduler pass here a million times a second.
    void preemption_point()
    {
        if (interleaves_)
            preempt();
    }

    // The caller's context: its thread; the callback context in a timer callback; and, on the simulated
    // scheduler outside run(), a context that must not wait. Never returns to a dropped thread.
    virtual Thread& context() = 0;

    // A thread that queues work mostly goes on to do it itself. On the real scheduler, where waking another
    // is dear, waiters of a semaphore that it releases are therefore woken only when it waits itself, calls
    // wake_waiters(), or has gone on for a while. The simulated one does the same when the seed says so.
    virtual bool defers_wakes() const = 0;
    // How far the processor has come: tells who has gone on for a while.
    virtual std::uint64_t cycles() = 0;

private:
    const bool interleaves_;
    KernelEntry& entry_;
};

// The scheduler of the machine that is on. Set by the scheduler's constructor.
extern std::atomic<KernelScheduler*> active_scheduler;

// The context in which this host thread runs kernel code, as the schedulers left it.
extern constinit thread_local Thread* this_thread;

// The slow way of self(): adopts, parks, or reports that no machine exists.
Thread& find_self();

inline Thread& self()
{
    Thread* thread = this_thread;
    if (thread && thread->owner.load(std::memory_order_relaxed) ==
                      active_scheduler.load(std::memory_order_relaxed)) [[likely]]
        return *thread;
    return find_self();
}

inline KernelScheduler& scheduler()
{
    return *active_scheduler.load(std::memory_order_relaxed);
}

// Holds the dispatcher lock for a scope.
class DispatcherLock {
public:
    DispatcherLock() { scheduler().lock_dispatcher(); }
    ~DispatcherLock() { scheduler().unlock_dispatcher(); }
    DispatcherLock(const DispatcherLock&) = delete;
    DispatcherLock& operator=(const DispatcherLock&) = delete;
};

// Wakes who waits for what the calling thread released. Before a thread waits for the host: it must not keep
// others from their work meanwhile, on which the host's answer may depend.
void wake_waiters();

}  // namespace machine
