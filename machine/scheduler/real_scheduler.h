// SPDX-License-Identifier: MIT
// The real scheduler: kernel threads run in parallel on the wall clock. Each is a host thread, or most of
// them are fibers of a few host threads, the machine's processors (Processors); then only those that wait for
// the host, and those that call in from it, are host threads. The dispatcher lock is one short lock; a host
// thread sleeps on a futex of its own and is woken after that lock was released.
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
#include "machine/scheduler/processors.h"
#include "machine/scheduler/real_thread.h"
#include "machine/scheduler/timer_thread.h"

namespace machine {

class RealScheduler final : public KernelScheduler {
public:
    RealScheduler(unsigned processors, KernelEntry& entry);

    bool simulated() const override { return false; }
    Ticks now() override { return (monotonic_ns() - origin_ns_) / 100; }
    Thread& spawn(std::string name, std::function<void()> body) override;
    Thread& spawn_for_host(std::string name, std::function<void()> body) override;
    Thread* current() override { return &self(); }
    Thread& context() override;
    void lock_dispatcher() override;
    void unlock_dispatcher() override;
    bool block(Ticks deadline) override;
    bool defers_wakes() const override { return !processors_; }
    std::uint64_t cycles() override { return __builtin_ia32_rdtsc(); }
    void wake(Thread& thread) override;
    void preempt() override {}
    void spin() override;
    TimerId call_at(Ticks when, std::function<void()> callback) override;
    bool cancel(TimerId id) override;
    void add_block_hook(std::function<void()> hook) override;
    bool wait_readable(int descriptor) override;
    bool run(std::function<void()> body) override;
    void switch_off() override;
    void retire() override;

private:
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
    RealThread& add(std::string name, std::function<void()> body);
    bool block_fiber(RealThread& thread, Ticks deadline);
    void take_dispatcher();
    void start(RealThread& thread);

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
    std::unique_ptr<Processors> processors_;    // null: every thread is a host thread
};

}  // namespace machine
