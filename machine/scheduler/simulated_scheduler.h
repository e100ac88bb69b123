// SPDX-License-Identifier: MIT
// The simulated scheduler: kernel threads are fibers of the host thread that calls run(), one runs at a
// time, and the next one is drawn from the seed at every preemption point. It simulates many
// processors, where another thread may run although this one holds a spin lock or runs a timer callback,
// or one: there nothing takes over at DISPATCH_LEVEL, and below it a thread of higher priority does at
// once and one of equal priority when the seed says so.
// Time stands still while any thread can run and then jumps to the next deadline.
#pragma once

#include <exception>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "machine/scheduler/fiber.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/random.h"

namespace machine {

class SimulatedScheduler final : public KernelScheduler {
public:
    SimulatedScheduler(std::uint64_t seed, unsigned processors, KernelEntry& entry);
    ~SimulatedScheduler();

    bool simulated() const override { return true; }
    Ticks now() override { return now_; }
    Thread& spawn(std::string name, std::function<void()> body) override;
    Thread* current() override;
    Thread& context() override;
    void lock_dispatcher() override;
    void unlock_dispatcher() override;
    bool block(Ticks deadline) override;
    bool defers_wakes() const override { return defers_wakes_; }
    std::uint64_t cycles() override;
    void wake(Thread& thread) override;
    void preempt() override;
    void spin() override;
    TimerId call_at(Ticks when, std::function<void()> callback) override;
    bool cancel(TimerId id) override;
    void add_block_hook(std::function<void()> hook) override;
    bool run(std::function<void()> body) override;
    StackUse deepest_stack() override;
    void switch_off() override;
    void retire() override { delete this; }

private:
    enum class State { running, ready, blocked, ended };

    struct FiberThread : Thread {
        using Thread::Thread;
        State state = State::ready;
        bool woken = false;
        Ticks deadline = never;        // while blocked
        std::uint64_t blocked_as = 0;  // orders equal deadlines
        std::uint64_t spun_at = 0;     // progress_ when it last spun in vain
        SimulatedScheduler* scheduler = nullptr;
        std::function<void()> body;
        Fiber fiber;
    };

    struct Deadline {
        Ticks when;
        std::uint64_t blocked_as;
        FiberThread* thread;
        bool operator<(const Deadline& other) const
        {
            return when != other.when ? when < other.when : blocked_as < other.blocked_as;
        }
    };

    static void fiber_main(void* thread);
    FiberThread& add_thread(Thread::Kind kind, std::string name, std::function<void()> body);
    void serve_timers();
    void start_timer_service();
    void make_ready(FiberThread& thread);
    FiberThread& take_ready(std::size_t index);
    FiberThread& take_highest();
    KPRIORITY highest_ready() const;
    void preempt_on_one();
    // Gives up the processor. The current thread's state says whether it wants it back.
    void reschedule();
    bool advance_clock();
    void switch_to(FiberThread& next);
    void leave_to_host();
    void arrive();
    void note_stack(const FiberThread& thread);

    Random random_;
    const double switch_probability_;
    Random wake_random_;
    const bool defers_wakes_;
    std::uint64_t cycles_ = 0;
    const bool one_processor_;
    Ticks now_ = 0;
    bool off_ = false;
    bool dispatcher_locked_ = false;
    std::uint64_t progress_ = 1;  // counts everything but spinning in vain
    std::uint64_t blocks_ = 0;
    std::uint64_t runs_ = 0;  // preemption points since a thread last waited

    std::vector<std::unique_ptr<FiberThread>> threads_;
    std::vector<FiberThread*> ready_;
    std::set<Deadline> deadlines_;
    FiberThread* current_ = nullptr;
    FiberThread* ended_ = nullptr;     // its stack goes when the next one runs
    FiberThread* run_body_ = nullptr;  // run() returns when this one ends
    Fiber host_;
    Thread outside_;  // the context of calls from outside run()
    std::exception_ptr failure_;
    StackUse deepest_stack_;

    std::map<std::pair<Ticks, TimerId>, std::function<void()>> timers_;
    std::unordered_map<TimerId, Ticks> timer_times_;
    TimerId next_timer_ = 1;
    FiberThread* timer_service_ = nullptr;

    std::vector<std::function<void()>> hooks_;
};

}  // namespace machine
