// SPDX-License-Identifier: MIT
#include "machine/scheduler/processors.h"

#include <pthread.h>

#include <algorithm>
#include <bit>
#include <system_error>
#include <utility>

namespace machine {
namespace {

// In processor cycles, of which a microsecond has between 1000 and 5000.
constexpr std::uint64_t look_interval_cycles = 150'000;
constexpr std::uint64_t help_after_cycles = 500'000;
constexpr std::uint64_t overdue_cycles = 1'500'000;
constexpr std::int64_t watch_ns = 1'000'000;
constexpr unsigned quiet_looks_max = 10;  // of the watch, before it rests
constexpr std::int64_t spin_min_ns = 2'000, spin_max_ns = 30'000;
constexpr unsigned pauses_per_look = 4;

std::uint64_t cycles()
{
    return __builtin_ia32_rdtsc();
}

thread_local void* own_processor = nullptr;

}  // namespace

Processors::Processors(KernelScheduler& scheduler, AdaptiveLock& dispatcher, const std::atomic<bool>& off,
                       const std::vector<std::function<void()>>& hooks, unsigned count)
    : scheduler_(scheduler), dispatcher_(dispatcher), off_(off), hooks_(hooks), spin_ns_(spin_max_ns)
{
    active_ = count;
    for (unsigned index = 0; index < count; ++index) {
        processors_.push_back(std::make_unique<Processor>());
        processors_.back()->all = this;
        pthread_t host_thread;
        if (const int error =
                pthread_create(&host_thread, nullptr, host_thread_main, processors_.back().get()))
            throw std::system_error(error, std::generic_category(), "cannot start a processor");
        pthread_detach(host_thread);
    }
}

void* Processors::host_thread_main(void* argument)
{
    auto& processor = *static_cast<Processor*>(argument);
    own_processor = &processor;
    processor.all->serve(processor);
    return nullptr;
}

// Not inlined, and never twice from one call: a fiber may be on another host thread after each switch.
[[gnu::noinline]] Processors::Processor& Processors::this_processor()
{
    asm volatile("");
    return *static_cast<Processor*>(own_processor);
}

void Processors::start(RealThread& thread)
{
    thread.processors = this;
    thread.fiber = std::make_unique<Fiber>();
    thread.fiber->prepare(fiber_main, &thread);
    thread.blocked = true;
    scheduler_.lock_dispatcher();
    make_ready(thread);
    scheduler_.unlock_dispatcher();
}

void Processors::fiber_main(void* argument)
{
    auto& thread = *static_cast<RealThread*>(argument);
    Processors& all = *thread.processors;
    all.arrive();
    all.scheduler_.unlock_dispatcher();
    all.scheduler_.entry().run_thread(thread, thread.body);
    thread.body = nullptr;
    for (const auto& hook : all.hooks_)
        hook();
    all.scheduler_.lock_dispatcher();
    thread.gone = true;
    all.ended_ = &thread;
    all.switch_from(*thread.fiber, all.off_ ? nullptr : all.next_to_run());
}

void Processors::serve(Processor& processor)
{
    dispatcher_.lock();
    while (!off_) {
        if (RealThread* next = next_to_run())
            switch_from(processor.host, next);
        else if (!idle(processor))
            break;
    }
    dispatcher_.unlock();
}

// To that thread, or to the processor's own loop.
void Processors::switch_from(Fiber& from, RealThread* next)
{
    ++switches_;
    this_thread = next;
    Fiber::switch_over(from, next ? *next->fiber : this_processor().host);
    arrive();
}

// First thing on the new stack after every switch.
void Processors::arrive()
{
    Thread* const thread = this_thread;
    if (thread)
        static_cast<RealThread*>(thread)->blocked.store(false, std::memory_order_relaxed);
    if (ended_ && ended_ != thread)
        std::exchange(ended_, nullptr)->fiber.reset();
}

void Processors::wait(RealThread& thread, Ticks deadline)
{
    thread.waiting = true;
    thread.deadline = deadline;
    thread.blocked_as = ++blocks_;
    if (deadline < never / 100)
        deadlines_.insert({deadline, thread.blocked_as, &thread});
    RealThread* const next = next_to_run();
    if (next == &thread)
        return;
    thread.blocked.store(true, std::memory_order_release);
    switch_from(*thread.fiber, next);
}

void Processors::wake(RealThread& thread)
{
    thread.wake_requested = true;
    if (thread.waiting)
        make_ready(thread);
}

void Processors::wait_readable(RealThread& thread, int descriptor)
{
    thread.wake_requested = false;
    if (events_.note_waiter(descriptor, thread))
        wait(thread, never);
}

void Processors::make_ready(RealThread& thread)
{
    if (std::exchange(thread.waiting, false) && thread.deadline < never / 100)
        deadlines_.erase({thread.deadline, thread.blocked_as, &thread});
    const auto priority = static_cast<unsigned>(thread.priority);
    Queue& queue = ready_[priority];
    thread.next_ready = nullptr;
    thread.ready_since = cycles();
    (queue.last ? queue.last->next_ready : queue.first) = &thread;
    queue.last = &thread;
    ready_mask_ |= 1u << priority;
    ready_count_.store(ready_count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (active_ == 0 && looking_)
        call(*std::exchange(looking_, nullptr));
}

RealThread* Processors::take_ready()
{
    if (ready_mask_ == 0)
        return nullptr;
    const auto priority = static_cast<unsigned>(std::bit_width(ready_mask_) - 1);
    Queue& queue = ready_[priority];
    RealThread* const thread = queue.first;
    queue.first = thread->next_ready;
    if (!queue.first) {
        queue.last = nullptr;
        ready_mask_ &= ~(1u << priority);
    }
    ready_count_.store(ready_count_.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    return thread;
}

// The thread that this processor runs next, if there is one.
RealThread* Processors::next_to_run()
{
    const std::uint64_t now = cycles();
    if (now - looked_at_ > look_interval_cycles)
        look_around();
    RealThread* const next = take_ready();
    if (next && ready_mask_ && now - next->ready_since > help_after_cycles)
        call_helper();
    return next;
}

bool Processors::ready_is_overdue() const
{
    if (ready_mask_ == 0)
        return false;
    const Queue& queue = ready_[static_cast<unsigned>(std::bit_width(ready_mask_) - 1)];
    return cycles() - queue.first->ready_since > overdue_cycles;
}

// What has happened meanwhile, without waiting. A system call that takes no time, under the lock.
void Processors::look_around()
{
    accept(events_.look());
    wake_due();
}

void Processors::accept(const HostEvents::Readable& readable)
{
    looked_at_ = cycles();
    for (unsigned index = 0; index < readable.count; ++index)
        if (RealThread* waiter = events_.take_waiter(readable.descriptors[index]))
            wake(*waiter);
}

void Processors::wake_due()
{
    if (deadlines_.empty())
        return;
    const Ticks now = scheduler_.now();
    while (!deadlines_.empty() && deadlines_.begin()->when <= now)
        make_ready(*deadlines_.begin()->thread);
}

// How long an idle processor may sleep.
std::int64_t Processors::idle_ns() const
{
    if (deadlines_.empty())
        return -1;
    return std::max<Ticks>(0, deadlines_.begin()->when - scheduler_.now()) * 100;
}

// One that sleeps is counted as active from here on, and kicked once the lock is free.
void Processors::call(Processor& processor)
{
    processor.called = true;
    ++active_;
    kick_due_ = &processor;
}

void Processors::call_helper()
{
    if (kick_due_)
        return;
    if (!spare_.empty()) {
        call(*spare_.back());
        spare_.pop_back();
    } else if (watch_) {
        call(*std::exchange(watch_, nullptr));
    }
}

Processors::Kick Processors::take_kick()
{
    return Kick(std::exchange(kick_due_, nullptr));
}

void Processors::Kick::give()
{
    if (!processor_)
        return;
    if (processor_->looks)
        processor_->all->events_.kick();
    else
        rouse(*processor_);
}

void Processors::rouse(Processor& processor)
{
    if (processor.sleep.exchange(0))
        futex_wake_one(processor.sleep);
}

void Processors::stop()
{
    events_.kick();
    for (auto& processor : processors_)
        rouse(*processor);
}

// Nothing is ready. False: the machine is off.
bool Processors::idle(Processor& processor)
{
    if (active_ > 1)
        be_spare(processor);
    else
        be_last(processor);
    return !off_;
}

// Looks for events: awake for a moment, then asleep.
void Processors::be_last(Processor& processor)
{
    if (spin_for_work() || off_ || active_ > 1)
        return;
    const std::int64_t at_most_ns = idle_ns();
    --active_;
    looking_ = &processor;
    processor.looks = true;
    dispatcher_.unlock();
    const HostEvents::Readable readable = events_.sleep(at_most_ns);
    dispatcher_.lock();
    processor.looks = false;
    if (!std::exchange(processor.called, false)) {
        looking_ = nullptr;
        ++active_;
    }
    if (watch_ && std::exchange(watch_rests_, false))
        rouse(*watch_);
    accept(readable);
    wake_due();
}

// Spins longer the next time when it was worth it, and shorter when not.
bool Processors::spin_for_work()
{
    const std::int64_t start_ns = monotonic_ns();
    bool found = false;
    for (;;) {
        dispatcher_.unlock();
        const HostEvents::Readable readable = events_.look();
        for (unsigned pause = 0; pause < pauses_per_look; ++pause)
            __builtin_ia32_pause();
        const std::int64_t spun_ns = monotonic_ns() - start_ns;
        dispatcher_.lock();
        accept(readable);
        wake_due();
        found = ready_count_.load(std::memory_order_relaxed) != 0;
        if (found || off_ || active_ > 1 || spun_ns > spin_ns_)
            break;
    }
    spin_ns_ = std::clamp(found ? spin_ns_ * 2 : spin_ns_ * 3 / 4, spin_min_ns, spin_max_ns);
    return found;
}

// Sleeps until it is called; as the watch looks up now and then.
void Processors::be_spare(Processor& processor)
{
    --active_;
    std::uint64_t switches_seen = switches_;
    unsigned quiet_looks = 0;
    while (!off_ && !processor.called) {
        if (!watch_) {
            std::erase(spare_, &processor);
            watch_ = &processor;
        }
        const bool watching = watch_ == &processor;
        if (watching) {
            if (active_ > 0 && cycles() - looked_at_ > overdue_cycles)
                look_around();
            if (ready_is_overdue()) {
                ++active_;
                break;
            }
            watch_rests_ = false;
            quiet_looks = active_ > 0 || switches_ != switches_seen ? 0 : quiet_looks + 1;
            switches_seen = switches_;
            watch_rests_ = quiet_looks > quiet_looks_max;
        } else if (std::ranges::find(spare_, &processor) == spare_.end()) {
            spare_.push_back(&processor);
        }
        processor.sleep.store(1, std::memory_order_relaxed);
        const bool rests = !watching || watch_rests_;
        dispatcher_.unlock();
        futex_wait(processor.sleep, 1, rests ? -1 : monotonic_ns() + watch_ns);
        processor.sleep.store(0, std::memory_order_relaxed);
        dispatcher_.lock();
    }
    processor.called = false;
    if (watch_ != &processor)
        return;
    watch_ = nullptr;
    if (!spare_.empty())  // one of them looks up instead
        rouse(*spare_.back());
}

}  // namespace machine
