// SPDX-License-Identifier: MIT
// Timer callbacks of the real scheduler: one host thread that runs them in order of time.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "machine/scheduler/kernel_scheduler.h"

namespace machine {

class TimerThread {
public:
    // origin_ns: the time of CLOCK_MONOTONIC at which the scheduler's time was 0.
    TimerThread(KernelScheduler& scheduler, std::int64_t origin_ns);

    TimerId call_at(Ticks when, std::function<void()> callback);
    bool cancel(TimerId id);

    // No callback starts any more. Waits a while for one that runs, unless called by it.
    void stop();

private:
    void serve();

    KernelScheduler& scheduler_;
    const std::int64_t origin_ns_;
    Thread context_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::pair<Ticks, TimerId>, std::function<void()>> timers_;
    std::unordered_map<TimerId, Ticks> times_;
    TimerId next_ = 1;
    bool started_ = false;
    bool stopped_ = false;
    bool at_work_ = false;
};

}  // namespace machine
