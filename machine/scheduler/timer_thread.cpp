// SPDX-License-Identifier: MIT
#include "machine/scheduler/timer_thread.h"

#include <chrono>

namespace machine {
namespace {
constexpr auto stop_wait = std::chrono::milliseconds(500);
}

TimerThread::TimerThread(KernelScheduler& scheduler, std::int64_t origin_ns)
    : scheduler_(scheduler), origin_ns_(origin_ns),
      context_(Thread::Kind::callback, "timer callback", &scheduler)
{
}

TimerId TimerThread::call_at(Ticks when, std::function<void()> callback)
{
    std::lock_guard guard(lock_);
    if (stopped_)
        return 0;
    const TimerId id = next_++;
    const bool first = timers_.empty() || when < timers_.begin()->first.first;
    timers_.emplace(std::pair(when, id), std::move(callback));
    times_.emplace(id, when);
    if (!started_) {
        started_ = true;
        std::thread([this] { serve(); }).detach();
    } else if (first) {
        changed_.notify_one();
    }
    return id;
}

bool TimerThread::cancel(TimerId id)
{
    std::lock_guard guard(lock_);
    const auto found = times_.find(id);
    if (found == times_.end())
        return false;
    timers_.erase({found->second, id});
    times_.erase(found);
    return true;
}

void TimerThread::stop()
{
    std::unique_lock guard(lock_);
    stopped_ = true;
    timers_.clear();
    times_.clear();
    changed_.notify_all();
    if (this_thread != &context_)
        changed_.wait_for(guard, stop_wait, [this] { return !at_work_; });
}

void TimerThread::serve()
{
    this_thread = &context_;
    std::unique_lock guard(lock_);
    while (!stopped_) {
        if (timers_.empty()) {
            changed_.wait(guard);
            continue;
        }
        const Ticks due = timers_.begin()->first.first;
        if (due > scheduler_.now()) {
            using namespace std::chrono;
            changed_.wait_until(guard, steady_clock::time_point(nanoseconds(origin_ns_ + due * 100)));
            continue;
        }
        auto timer = timers_.extract(timers_.begin());
        times_.erase(timer.key().second);
        at_work_ = true;
        guard.unlock();
        scheduler_.entry().run_callback(context_, timer.mapped());
        guard.lock();
        at_work_ = false;
        changed_.notify_all();
    }
}

}  // namespace machine
