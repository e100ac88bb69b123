// SPDX-License-Identifier: MIT
// Timer callbacks of the simulated scheduler. One fiber serves them in order of time, and in the order
// of their setting at equal times; which due callback runs before or after which thread is drawn.
#include <utility>

#include "machine/scheduler/simulated_scheduler.h"

namespace machine {

OwnedScheduler make_simulated_scheduler(std::uint64_t seed, unsigned processors, KernelEntry& entry)
{
    return OwnedScheduler(new SimulatedScheduler(seed, processors, entry));
}

TimerId SimulatedScheduler::call_at(Ticks when, std::function<void()> callback)
{
    if (off_)
        return 0;
    const TimerId id = next_timer_++;
    timers_.emplace(std::pair(when, id), std::move(callback));
    timer_times_.emplace(id, when);
    start_timer_service();
    return id;
}

bool SimulatedScheduler::cancel(TimerId id)
{
    const auto found = timer_times_.find(id);
    if (found == timer_times_.end())
        return false;
    timers_.erase({found->second, id});
    timer_times_.erase(found);
    return true;
}

// Makes the service ready when a callback is due and it is not at work already.
void SimulatedScheduler::start_timer_service()
{
    if (timers_.empty() || timers_.begin()->first.first > now_)
        return;
    if (!timer_service_ || timer_service_->state == State::ended) {
        timer_service_ = &add_thread(Thread::Kind::callback, "timer callback", nullptr);
        make_ready(*timer_service_);
    } else if (timer_service_->state == State::blocked) {
        make_ready(*timer_service_);
    }
}

void SimulatedScheduler::serve_timers()
{
    for (;;) {
        while (!timers_.empty() && timers_.begin()->first.first <= now_) {
            auto timer = timers_.extract(timers_.begin());
            timer_times_.erase(timer.key().second);
            entry().run_callback(*timer_service_, timer.mapped());
            preempt();
        }
        ++progress_;
        timer_service_->deadline = never;
        timer_service_->state = State::blocked;
        reschedule();
    }
}

}  // namespace machine
