// SPDX-License-Identifier: MIT
#include "machine/scheduler/real_scheduler.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr std::size_t stack_bytes = 1024 * 1024;
constexpr unsigned spins_per_yield = 64;
constexpr int quiet_wait_ms = 500;

}  // namespace

struct RealScheduler::Run {
    std::mutex lock;
    std::condition_variable changed;
    bool ended = false;
    bool machine_off = false;
    std::exception_ptr failure;

    void end(bool Run::*how, std::exception_ptr why = nullptr)
    {
        std::lock_guard guard(lock);
        this->*how = true;
        failure = why;
        changed.notify_all();
    }
};

thread_local RealScheduler::Adoption RealScheduler::adoption_;

RealScheduler::RealScheduler(KernelEntry& entry)
    : KernelScheduler(false, entry), origin_ns_(monotonic_ns()), timers_(*this, origin_ns_)
{
    if (active_scheduler.exchange(this))
        violation("a second machine was started before the first one was destroyed");
}

void RealScheduler::retire()
{
    if (!off_)
        switch_off();
    active_scheduler = nullptr;
}

Thread& RealScheduler::spawn(std::string name, std::function<void()> body)
{
    return start(std::move(name), std::move(body));
}

RealScheduler::RealThread& RealScheduler::start(std::string name, std::function<void()> body)
{
    auto owned = std::make_unique<RealThread>(Thread::Kind::spawned, std::move(name), this);
    RealThread& thread = *owned;
    thread.body = std::move(body);
    {
        std::lock_guard guard(threads_lock_);
        threads_.push_back(std::move(owned));
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stack_bytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t host_thread;
    const int error = pthread_create(&host_thread, &attributes, host_thread_main, &thread);
    pthread_attr_destroy(&attributes);
    if (error) {
        thread.gone = true;
        throw std::system_error(error, std::generic_category(), "cannot start a host thread");
    }
    return thread;
}

void* RealScheduler::host_thread_main(void* argument)
{
    auto& thread = *static_cast<RealThread*>(argument);
    this_thread = &thread;
    thread.owner.load()->entry().run_thread(thread, thread.body);
    thread.body = nullptr;
    this_thread = nullptr;
    thread.gone = true;
    return nullptr;
}

Thread& RealScheduler::context()
{
    Thread* thread = this_thread;
    if (thread && thread->owner.load() == this)
        return *thread;
    std::lock_guard guard(threads_lock_);
    if (free_adopted_.empty()) {
        threads_.push_back(std::make_unique<RealThread>(
            Thread::Kind::adopted, "host thread " + std::to_string(++adopted_count_), this));
        adoption_.thread = threads_.back().get();
    } else {
        adoption_.thread = free_adopted_.back();
        free_adopted_.pop_back();
    }
    adoption_.scheduler = this;
    this_thread = adoption_.thread;
    return *adoption_.thread;
}

RealScheduler::Adoption::~Adoption()
{
    if (!scheduler || active_scheduler.load() != scheduler)
        return;
    this_thread = nullptr;
    std::lock_guard guard(scheduler->threads_lock_);
    scheduler->free_adopted_.push_back(thread);
}

void RealScheduler::lock_dispatcher()
{
    if (off_.load(std::memory_order_relaxed) && this_thread->kind != Thread::Kind::adopted) [[unlikely]]
        park();
    dispatcher_.lock();
}

void RealScheduler::unlock_dispatcher()
{
    const std::size_t count = to_wake_count_;
    if (count == 0) {
        dispatcher_.unlock();
        return;
    }
    std::array<RealThread*, 16> threads;
    std::copy_n(to_wake_.begin(), count, threads.begin());
    to_wake_count_ = 0;
    dispatcher_.unlock();
    for (std::size_t index = 0; index < count; ++index)
        signal(*threads[index]);
}

void RealScheduler::signal(RealThread& thread)
{
    if (thread.sleep.exchange(woken, std::memory_order_acq_rel) == asleep)
        futex_wake_one(thread.sleep);
}

void RealScheduler::wake(Thread& sleeper)
{
    auto& thread = static_cast<RealThread&>(sleeper);
    thread.wake_requested = true;
    if (to_wake_count_ < to_wake_.size())
        to_wake_[to_wake_count_++] = &thread;
    else
        signal(thread);
}

bool RealScheduler::block(Ticks deadline)
{
    if (off_.load(std::memory_order_relaxed)) {
        dispatcher_.unlock();
        park();
    }
    auto& thread = static_cast<RealThread&>(*this_thread);
    thread.wake_requested = false;
    thread.sleep.store(awake, std::memory_order_relaxed);
    unlock_dispatcher();
    for (const auto& hook : hooks_)
        hook();
    thread.blocked.store(true, std::memory_order_release);

    const std::int64_t until_ns =
        deadline >= never / 100 ? -1 : std::max<std::int64_t>(0, origin_ns_ + deadline * 100);
    for (;;) {
        std::int32_t state = awake;
        if (thread.sleep.compare_exchange_strong(state, asleep, std::memory_order_acq_rel))
            futex_wait(thread.sleep, asleep, until_ns);
        dispatcher_.lock();
        if (off_.load(std::memory_order_relaxed)) {
            dispatcher_.unlock();
            park();
        }
        if (thread.wake_requested || (until_ns >= 0 && now() >= deadline)) {
            thread.blocked.store(false, std::memory_order_relaxed);
            return thread.wake_requested;
        }
        // A late signal of an earlier wait, or an early return of the host.
        thread.sleep.store(awake, std::memory_order_relaxed);
        unlock_dispatcher();
    }
}

void RealScheduler::spin()
{
    __builtin_ia32_pause();
    static thread_local unsigned spins = 0;
    if (++spins % spins_per_yield == 0)
        sched_yield();
    if (off_.load(std::memory_order_relaxed)) [[unlikely]]
        park();
}

TimerId RealScheduler::call_at(Ticks when, std::function<void()> callback)
{
    return timers_.call_at(when, std::move(callback));
}

bool RealScheduler::cancel(TimerId id)
{
    return timers_.cancel(id);
}

void RealScheduler::add_block_hook(std::function<void()> hook)
{
    hooks_.push_back(std::move(hook));
}

bool RealScheduler::run(std::function<void()> body)
{
    auto end = std::make_shared<Run>();
    {
        std::lock_guard guard(threads_lock_);
        if (off_)
            return false;
        runs_.push_back(end);
    }
    start("run", [end, body = std::move(body)] {
        std::exception_ptr failure;
        try {
            body();
        } catch (...) {
            failure = std::current_exception();
        }
        end->end(&Run::ended, failure);
    });
    {
        std::unique_lock guard(end->lock);
        end->changed.wait(guard, [&] { return end->ended || end->machine_off; });
    }
    {
        std::lock_guard guard(threads_lock_);
        std::erase(runs_, end);
    }
    if (end->failure)
        std::rethrow_exception(end->failure);
    return end->ended;
}

void RealScheduler::park()
{
    this_thread->gone = true;
    for (;;)
        pause();
}

void RealScheduler::switch_off()
{
    const Thread& caller = self();
    // Under the lock: a thread that is blocked now finds off_ set before it leaves block().
    dispatcher_.lock();
    off_ = true;
    dispatcher_.unlock();
    {
        std::lock_guard guard(threads_lock_);
        for (auto& thread : threads_)
            if (thread->kind == Thread::Kind::spawned && thread.get() != &caller)
                thread->owner = nullptr;
        for (auto& run : runs_)
            run->end(&Run::machine_off);
    }
    timers_.stop();
    if (caller.kind == Thread::Kind::adopted)
        wait_until_quiet();
}

// The memory that threads of the driver use goes next, so they get a moment to reach the kernel. One
// that stays away longer, inside a system call of the host, does not touch that memory.
void RealScheduler::wait_until_quiet()
{
    for (int waited_ms = 0; waited_ms < quiet_wait_ms; ++waited_ms) {
        {
            std::lock_guard guard(threads_lock_);
            const bool quiet = std::ranges::all_of(threads_, [](const auto& thread) {
                return thread->kind == Thread::Kind::adopted || thread->gone || thread->blocked;
            });
            if (quiet)
                return;
        }
        usleep(1000);
    }
}

OwnedScheduler make_real_scheduler(KernelEntry& entry)
{
    static auto& kept = *new std::vector<RealScheduler*>;  // where leak checkers find them
    return OwnedScheduler(kept.emplace_back(new RealScheduler(entry)));
}

}  // namespace machine
