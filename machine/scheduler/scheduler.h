// SPDX-License-Identifier: MIT
// Threads and time of the machine. Two implementations stand behind this interface:
//
//   real       kernel threads are host threads, or fibers of a few, and run in parallel on the wall clock;
//   simulated  one fiber at a time, a virtual clock that jumps to the next deadline, and the next
//              thread drawn from a seed at every preemption point. A seed replays a run exactly.
//
// The executive (events, semaphores, spin locks, threads) is built on it and is the same for both.
// Nothing here knows about the driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace machine {

// 100 ns units since the machine was switched on, as the kernel counts.
using Ticks = std::int64_t;
constexpr Ticks ticks_per_us = 10;
constexpr Ticks ticks_per_ms = 10'000;
constexpr Ticks ticks_per_second = 10'000'000;
constexpr Ticks never = INT64_MAX;

struct Thread;      // one kernel thread; opaque outside scheduler/ and executive/
class KernelEntry;  // machine/scheduler/kernel_entry.h; lives as long as any thread

using TimerId = std::uint64_t;

class Scheduler {
public:
    virtual bool simulated() const = 0;
    virtual Ticks now() = 0;

    // Starts a thread. The body runs at PASSIVE_LEVEL. When the machine is switched off, threads that
    // still run are dropped where they stand and never resume; their stacks are not unwound.
    virtual Thread& spawn(std::string name, std::function<void()> body) = 0;

    // The same for a thread that waits for the host, for its disk, say, or for other programs: on the real
    // scheduler it has a host thread of its own.
    virtual Thread& spawn_for_host(std::string name, std::function<void()> body)
    {
        return spawn(std::move(name), std::move(body));
    }

    // The calling thread. On the real scheduler a host thread that calls for the first time (a test,
    // a network client's thread) becomes a kernel thread by this; on the simulated one it is null
    // outside every fiber, that is inside a timer callback.
    virtual Thread* current() = 0;

    // The dispatcher lock guards the signal states and wait lists of all kernel objects.
    virtual void lock_dispatcher() = 0;
    virtual void unlock_dispatcher() = 0;

    // Gives up the processor until wake() or the deadline; returns false when the deadline came first.
    // Called, and returns, with the dispatcher lock held. Runs the block hooks first.
    virtual bool block(Ticks deadline) = 0;
    // Makes a blocked thread ready. Called with the dispatcher lock held.
    virtual void wake(Thread& thread) = 0;

    // A point where another thread may run. Does nothing on the real scheduler.
    virtual void preempt() = 0;
    // Called in a loop by a thread that spins on a lock held by another.
    virtual void spin() = 0;

    // Runs callback once at the given time, at DISPATCH_LEVEL, like a deferred procedure call: it may
    // set events, take spin locks and queue packets, and must not wait. Any thread may call this.
    virtual TimerId call_at(Ticks when, std::function<void()> callback) = 0;
    // False when the callback has run, runs now, or was cancelled before.
    virtual bool cancel(TimerId id) = 0;

    // Called in every thread just before it blocks (without the dispatcher lock): work gathered for
    // the thread leaves now, such as packets waiting to be sent in one system call.
    virtual void add_block_hook(std::function<void()> hook) = 0;

    // Waits until the descriptor may have something to read; the caller has read all that there was, and goes
    // on to read again. The descriptor stays open as long as the machine is on. Returns false at once where
    // the thread can as well wait in the host itself.
    virtual bool wait_readable([[maybe_unused]] int descriptor) { return false; }

    // Runs body as a thread and returns when it has ended or nothing can ever run again. On the
    // simulated scheduler this call is what drives all fibers. Returns false when body did not end:
    // every thread is blocked for ever and no timer is set (simulated only), or the machine stopped.
    virtual bool run(std::function<void()> body) = 0;

    // The thread that used most of its stack so far, all that machine and driver have on it. 0 bytes: not
    // measured (the real scheduler).
    struct StackUse {
        std::size_t bytes = 0;
        std::string thread = {};
    };
    virtual StackUse deepest_stack() { return {}; }

    // Drops all threads and timers: the power is gone. Called by the machine only.
    virtual void switch_off() = 0;
    // The machine is gone, and another one may be started. Called by its owner, which forgets the scheduler:
    // it frees itself, unless threads are parked in it.
    virtual void retire() = 0;

protected:
    ~Scheduler() = default;
};

struct RetireScheduler {
    void operator()(Scheduler* scheduler) const { scheduler->retire(); }
};
using OwnedScheduler = std::unique_ptr<Scheduler, RetireScheduler>;

// processors: so many host threads run the kernel threads as fibers, at least two; 0: each kernel thread is a
// host thread.
OwnedScheduler make_real_scheduler(unsigned processors, KernelEntry& entry);
OwnedScheduler make_simulated_scheduler(std::uint64_t seed, unsigned processors, KernelEntry& entry);

}  // namespace machine
