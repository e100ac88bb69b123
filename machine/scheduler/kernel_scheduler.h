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

    // Whether system threads put wake-ups off (DeferredWake): on the real scheduler, and on the simulated one
    // when the seed says so.
    virtual bool defers_wakes() const = 0;
    // How far the processor has come, for those who put them off.
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

}  // namespace machine
