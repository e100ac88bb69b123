// SPDX-License-Identifier: MIT
// The real scheduler: kernel threads are host threads, in parallel on the wall clock. The dispatcher
// lock is one short lock; a thread sleeps on a futex of its own and is woken after that lock was
// released.
//
// No other lock is taken under the dispatcher lock.
//
// When the machine is switched off, its threads stay where they are or stop at their next call into the
// kernel; host threads that only call in stop when they would wait. Threads that stopped never end, so
// this object is never freed either.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <vector>

#include "machine/scheduler/futex.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/timer_thread.h"

namespace machine {

class RealScheduler final : public KernelScheduler {
public:
    explicit RealScheduler(KernelEntry& entry);

    bool simulated() const override { return false; }
    Ticks now() override { return (monotonic_ns() - origin_ns_) / 100; }
    Thread& spawn(std::string name, std::function<void()> body) override;
    Thread* current() override { return &self(); }
    Thread& context() override;
    void lock_dispatcher() override;
    void unlock_dispatcher() override;
    bool block(Ticks deadline) override;
    bool defers_wakes() const override { return true; }
    std::uint64_t cycles() override { return __builtin_ia32_rdtsc(); }
    void wake(Thread& thread) override;
    void preempt() override {}
    void spin() override;
    TimerId call_at(Ticks when, std::function<void()> callback) override;
    bool cancel(TimerId id) override;
    void add_block_hook(std::function<void()> hook) override;
    bool run(std::function<void()> body) override;
    void switch_off() override;
    void retire() override;

private:
    enum Sleep : std::int32_t { awake = 0, woken = 1, asleep = -1 };

    struct RealThread : Thread {
        using Thread::Thread;
        bool wake_requested = false;  // dispatcher lock
        std::atomic<std::int32_t> sleep = awake;
        // Between the block hooks and the return under the dispatcher lock.
        std::atomic<bool> blocked = false;
        std::function<void()> body;
    };

    struct Adoption {  // a host thread's membership, given back when it ends
        RealThread* thread = nullptr;
        RealScheduler* scheduler = nullptr;
        ~Adoption();
    };

    // The end that run() waits for: its body's, or the machine's.
    struct Run;

    static void* host_thread_main(void* thread);
    static void signal(RealThread& thread);
    [[noreturn]] void park();
    void wait_until_quiet();
    RealThread& start(std::string name, std::function<void()> body);

    static thread_local Adoption adoption_;

    const std::int64_t origin_ns_;
    std::atomic<bool> off_ = false;

    AdaptiveLock dispatcher_;
    std::array<RealThread*, 16> to_wake_{};  // dispatcher lock; woken after its release
    std::size_t to_wake_count_ = 0;

    std::mutex threads_lock_;
    std::vector<std::unique_ptr<RealThread>> threads_;
    std::vector<RealThread*> free_adopted_;
    unsigned adopted_count_ = 0;
    std::vector<std::shared_ptr<Run>> runs_;

    TimerThread timers_;
    std::vector<std::function<void()>> hooks_;  // filled before threads run
};

}  // namespace machine
