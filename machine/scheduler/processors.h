// SPDX-License-Identifier: MIT
// The machine's processors on the real scheduler: a few host threads that run ready kernel threads as fibers,
// the highest priority first, and switch between them in user space when they wait. Waking a thread costs no
// system call while a processor is at work.
//
// One processor does the work as long as it can keep up, since what its threads tell each other then costs
// least. When it has nothing to do it looks for events of the host, a little while without sleeping. The
// others sleep, but for one, the watch, which looks up every millisecond: work that has waited for that long
// is taken over. So a thread that never waits, or that waits for the host, holds one processor and not the
// machine. Nobody is preempted: as many such threads as there are processors stop it.
//
// A thread that waits may go on on another processor. Nothing below it keeps anything per host thread beyond
// a wait.
//
// All under the dispatcher lock unless said otherwise.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <set>
#include <vector>

#include "machine/scheduler/futex.h"
#include "machine/scheduler/host_events.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/real_thread.h"

namespace machine {

class Processors {
public:
    // The lock and the flag of the scheduler, which tells that the machine is off: nothing runs from then on.
    // The hooks run before a thread ends.
    Processors(KernelScheduler& scheduler, AdaptiveLock& dispatcher, const std::atomic<bool>& off,
               const std::vector<std::function<void()>>& hooks, unsigned count);

    // Makes the thread a fiber, and ready. Without the lock.
    void start(RealThread& thread);
    // The calling thread gives its processor up until it is woken or its time has come. The caller checks
    // afterwards whether the machine is off.
    void wait(RealThread& thread, Ticks deadline);
    // Wakes a thread that waits.
    void wake(RealThread& thread);
    // The calling thread waits until the descriptor may have something to read.
    void wait_readable(RealThread& thread, int descriptor);

    // Whether somebody is to be kicked when the lock is released; then the kick, without it.
    bool kick_due() const { return kick_due_ != nullptr; }
    class Kick;
    Kick take_kick();

    // Processors that sleep see that the machine is off. Without the lock.
    void stop();

private:
    struct Processor {
        Fiber host;
        Processors* all = nullptr;
        std::atomic<std::int32_t> sleep = 0;  // 1: on this futex
        std::atomic<bool> looks = false;      // sleeps in HostEvents
        bool called = false;                  // counted as active by who kicked it
    };

    struct Deadline {
        Ticks when;
        std::uint64_t blocked_as;
        RealThread* thread;
        bool operator<(const Deadline& other) const
        {
            return when != other.when ? when < other.when : blocked_as < other.blocked_as;
        }
    };

    static void* host_thread_main(void* processor);
    static void fiber_main(void* thread);
    static Processor& this_processor();

    void serve(Processor& processor);
    void make_ready(RealThread& thread);
    RealThread* take_ready();
    RealThread* next_to_run();
    bool ready_is_overdue() const;
    void look_around();
    void accept(const HostEvents::Readable& readable);
    void wake_due();
    std::int64_t idle_ns() const;
    void switch_from(Fiber& from, RealThread* next);
    void arrive();
    void call(Processor& processor);
    static void rouse(Processor& processor);
    void call_helper();

    bool idle(Processor& processor);
    void be_last(Processor& processor);
    bool spin_for_work();
    void be_spare(Processor& processor);

    KernelScheduler& scheduler_;
    AdaptiveLock& dispatcher_;
    const std::atomic<bool>& off_;
    const std::vector<std::function<void()>>& hooks_;
    HostEvents events_;
    std::vector<std::unique_ptr<Processor>> processors_;

    struct Queue {
        RealThread* first = nullptr;
        RealThread* last = nullptr;
    };
    std::array<Queue, 32> ready_;  // by priority
    std::uint32_t ready_mask_ = 0;
    std::atomic<unsigned> ready_count_ = 0;  // read without the lock by who spins
    std::set<Deadline> deadlines_;
    std::uint64_t blocks_ = 0;
    std::uint64_t switches_ = 0;
    std::uint64_t looked_at_ = 0;  // in processor cycles

    unsigned active_ = 0;            // processors that run threads, or spin
    Processor* looking_ = nullptr;   // sleeps until an event of the host
    Processor* watch_ = nullptr;     // a spare one that looks up every millisecond
    bool watch_rests_ = false;       // nothing has happened for a while: it sleeps until it is called
    std::vector<Processor*> spare_;  // the others that sleep
    Processor* kick_due_ = nullptr;
    RealThread* ended_ = nullptr;  // its stack goes when the next one runs
    std::int64_t spin_ns_ = 0;
};

// A processor that has been called, to be woken now that the lock is free.
class Processors::Kick {
public:
    explicit Kick(Processor* processor) : processor_(processor) {}
    void give();

private:
    Processor* processor_;
};

}  // namespace machine
