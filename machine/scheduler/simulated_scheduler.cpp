// SPDX-License-Identifier: MIT
#include "machine/scheduler/simulated_scheduler.h"

#include <algorithm>
#include <array>
#include <utility>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

// How often a preemption point really switches. A schedule of rare switches finds other faults than one
// of frequent switches, so the seed chooses.
double draw_switch_probability(std::uint64_t seed)
{
    constexpr std::array probabilities{1.0, 0.5, 0.2, 0.05};
    return probabilities[Random(seed ^ 0x5357495443480000u).below(probabilities.size())];
}

// So many preemption points without a wait are no work: some thread polls for what can't happen meanwhile.
constexpr std::uint64_t runs_max = 5'000'000;

// A timer callback is no thread, and goes before all of them.
KPRIORITY rank(const Thread& thread)
{
    return thread.kind == Thread::Kind::callback ? HIGH_PRIORITY + 1 : thread.priority;
}

}  // namespace

SimulatedScheduler::SimulatedScheduler(std::uint64_t seed, unsigned processors, KernelEntry& entry)
    : KernelScheduler(true, entry), random_(seed), switch_probability_(draw_switch_probability(seed)),
      wake_random_(seed ^ 0x57414B4500000000u), defers_wakes_(wake_random_.chance(0.5)),
      one_processor_(processors == 1), outside_(Thread::Kind::adopted, "outside run()", this)
{
    if (active_scheduler.exchange(this))
        violation("a second machine was started before the first one was destroyed");
}

SimulatedScheduler::~SimulatedScheduler()
{
    switch_off();
    active_scheduler = nullptr;
}

SimulatedScheduler::FiberThread& SimulatedScheduler::add_thread(Thread::Kind kind, std::string name,
                                                                std::function<void()> body)
{
    auto thread = std::make_unique<FiberThread>(kind, std::move(name), this);
    thread->scheduler = this;
    thread->body = std::move(body);
    thread->fiber.prepare(fiber_main, thread.get());
    threads_.push_back(std::move(thread));
    return *threads_.back();
}

Thread& SimulatedScheduler::spawn(std::string name, std::function<void()> body)
{
    FiberThread& thread = add_thread(Thread::Kind::spawned, std::move(name), std::move(body));
    make_ready(thread);
    return thread;
}

void SimulatedScheduler::fiber_main(void* argument)
{
    auto& thread = *static_cast<FiberThread*>(argument);
    SimulatedScheduler& scheduler = *thread.scheduler;
    scheduler.arrive();
    try {
        if (thread.kind == Thread::Kind::callback)
            scheduler.serve_timers();
        else
            scheduler.entry().run_thread(thread, thread.body);
    } catch (...) {
        scheduler.failure_ = std::current_exception();
    }
    thread.state = State::ended;
    scheduler.ended_ = &thread;
    ++scheduler.progress_;
    scheduler.reschedule();
}

Thread* SimulatedScheduler::current()
{
    return current_ && current_->kind != Thread::Kind::callback ? current_ : nullptr;
}

Thread& SimulatedScheduler::context()
{
    return current_ ? static_cast<Thread&>(*current_) : outside_;
}

void SimulatedScheduler::lock_dispatcher()
{
    if (dispatcher_locked_)
        violation("the dispatcher lock was taken twice");
    dispatcher_locked_ = true;
}

void SimulatedScheduler::unlock_dispatcher()
{
    dispatcher_locked_ = false;
}

bool SimulatedScheduler::block(Ticks deadline)
{
    if (off_)
        leave_to_host();
    if (!current()) {
        dispatcher_locked_ = false;
        violation(current_ ? "a timer callback waited" : "a wait outside run()");
    }
    FiberThread& thread = *current_;
    thread.woken = false;
    if (!hooks_.empty()) {
        dispatcher_locked_ = false;
        for (const auto& hook : hooks_)
            hook();
        dispatcher_locked_ = true;
    }
    if (thread.woken)
        return true;

    dispatcher_locked_ = false;
    ++progress_;
    runs_ = 0;
    if (deadline <= now_) {
        make_ready(thread);
    } else {
        thread.state = State::blocked;
        thread.deadline = deadline;
        thread.blocked_as = ++blocks_;
        if (deadline != never)
            deadlines_.insert({deadline, thread.blocked_as, &thread});
    }
    reschedule();
    dispatcher_locked_ = true;
    return thread.woken;
}

// A moment since the last time, or a millisecond and more.
std::uint64_t SimulatedScheduler::cycles()
{
    return cycles_ += wake_random_.chance(0.25) ? 10'000'000 : 1000;
}

void SimulatedScheduler::wake(Thread& woken)
{
    auto& thread = static_cast<FiberThread&>(woken);
    thread.woken = true;
    if (thread.state != State::blocked)
        return;
    if (thread.deadline != never)
        deadlines_.erase({thread.deadline, thread.blocked_as, &thread});
    make_ready(thread);
}

void SimulatedScheduler::preempt()
{
    if (!current_)
        return;
    if (off_)
        leave_to_host();
    ++progress_;
    if (++runs_ > runs_max)
        violation("a thread polls without progress: nothing waits, and so no time passes");
    if (one_processor_)
        return preempt_on_one();
    if (ready_.empty() || !random_.chance(switch_probability_))
        return;
    const auto choice = random_.below(static_cast<std::uint32_t>(ready_.size()) + 1);
    if (choice == ready_.size())
        return;
    FiberThread& next = take_ready(choice);
    make_ready(*current_);
    switch_to(next);
}

void SimulatedScheduler::preempt_on_one()
{
    if (current_->irql >= DISPATCH_LEVEL || dispatcher_locked_ || ready_.empty())
        return;
    const KPRIORITY highest = highest_ready(), own = rank(*current_);
    if (highest < own || (highest == own && !random_.chance(switch_probability_)))
        return;
    FiberThread& next = take_highest();
    make_ready(*current_);
    switch_to(next);
}

KPRIORITY SimulatedScheduler::highest_ready() const
{
    KPRIORITY highest = 0;
    for (const FiberThread* thread : ready_)
        highest = std::max(highest, rank(*thread));
    return highest;
}

SimulatedScheduler::FiberThread& SimulatedScheduler::take_highest()
{
    const KPRIORITY highest = highest_ready();
    const auto is_highest = [highest](const FiberThread* thread) { return rank(*thread) == highest; };
    auto choice = random_.below(static_cast<std::uint32_t>(std::ranges::count_if(ready_, is_highest)));
    std::size_t index = 0;
    while (!is_highest(ready_[index]) || choice-- != 0)
        ++index;
    return take_ready(index);
}

void SimulatedScheduler::spin()
{
    if (!current_)
        violation("deadlock: a spin lock is held by a thread, and the caller outside run() waits for it");
    if (off_)
        leave_to_host();
    if (one_processor_)
        violation("deadlock: a thread spins on a lock whose holder can't run on the only processor");
    current_->spun_at = progress_;
    std::uint32_t others = 0;
    for (const FiberThread* thread : ready_)
        others += thread->spun_at != progress_;
    if (!others)
        violation("deadlock: every thread that can run spins on a held lock");
    std::uint32_t choice = random_.below(others);
    std::size_t index = 0;
    while (ready_[index]->spun_at == progress_ || choice-- != 0)
        ++index;
    FiberThread& next = take_ready(index);
    make_ready(*current_);
    switch_to(next);
}

void SimulatedScheduler::add_block_hook(std::function<void()> hook)
{
    hooks_.push_back(std::move(hook));
}

void SimulatedScheduler::make_ready(FiberThread& thread)
{
    thread.state = State::ready;
    ready_.push_back(&thread);
}

SimulatedScheduler::FiberThread& SimulatedScheduler::take_ready(std::size_t index)
{
    FiberThread& thread = *ready_[index];
    ready_[index] = ready_.back();
    ready_.pop_back();
    return thread;
}

void SimulatedScheduler::reschedule()
{
    const bool body_ended = run_body_ && run_body_->state == State::ended;
    if (off_ || failure_ || body_ended || (ready_.empty() && !advance_clock())) {
        leave_to_host();
        return;
    }
    switch_to(one_processor_ ? take_highest()
                             : take_ready(random_.below(static_cast<std::uint32_t>(ready_.size()))));
}

bool SimulatedScheduler::advance_clock()
{
    Ticks next = never;
    if (!deadlines_.empty())
        next = deadlines_.begin()->when;
    if (!timers_.empty() && timers_.begin()->first.first < next)
        next = timers_.begin()->first.first;
    if (next == never)
        return false;
    now_ = std::max(now_, next);
    while (!deadlines_.empty() && deadlines_.begin()->when <= now_) {
        FiberThread& thread = *deadlines_.begin()->thread;
        deadlines_.erase(deadlines_.begin());
        make_ready(thread);
    }
    start_timer_service();
    return true;
}

void SimulatedScheduler::switch_to(FiberThread& next)
{
    FiberThread* previous = current_;
    next.state = State::running;
    if (&next == previous)
        return;
    current_ = &next;
    this_thread = &next;
    Fiber::switch_over(previous ? previous->fiber : host_, next.fiber);
    arrive();
}

// Back to the caller of run(). A thread of a machine that is off stays here for ever.
void SimulatedScheduler::leave_to_host()
{
    FiberThread* previous = current_;
    if (!previous)
        return;
    if (previous->state == State::running)
        make_ready(*previous);
    current_ = nullptr;
    this_thread = nullptr;
    Fiber::switch_over(previous->fiber, host_);
    arrive();
}

// First thing on the new stack after every switch.
void SimulatedScheduler::arrive()
{
    if (ended_ && ended_ != current_) {
        note_stack(*ended_);
        ended_->fiber.drop_stack();
        ended_->body = nullptr;
        ended_ = nullptr;
    }
}

void SimulatedScheduler::note_stack(const FiberThread& thread)
{
    if (const std::size_t bytes = thread.fiber.deepest_use(); bytes > deepest_stack_.bytes)
        deepest_stack_ = {bytes, thread.name};
}

Scheduler::StackUse SimulatedScheduler::deepest_stack()
{
    for (const auto& thread : threads_)
        note_stack(*thread);
    return deepest_stack_;
}

bool SimulatedScheduler::run(std::function<void()> body)
{
    if (current_)
        violation("run() was called inside a kernel thread");
    if (off_)
        return false;
    FiberThread& thread = add_thread(Thread::Kind::spawned, "run", std::move(body));
    make_ready(thread);
    run_body_ = &thread;
    reschedule();
    run_body_ = nullptr;
    if (failure_)
        std::rethrow_exception(std::exchange(failure_, nullptr));
    return thread.state == State::ended;
}

void SimulatedScheduler::switch_off()
{
    off_ = true;
    dispatcher_locked_ = false;
    if (current_)
        return;  // the stacks stay until this is called from outside
    ready_.clear();
    deadlines_.clear();
    timers_.clear();
    timer_times_.clear();
    for (auto& thread : threads_)
        thread->fiber.drop_stack();
}

}  // namespace machine
