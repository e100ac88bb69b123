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

RealScheduler::RealScheduler(unsigned processors, KernelEntry& entry)
    : KernelScheduler(false, entry), origin_ns_(monotonic_ns()), timers_(*this, origin_ns_)
{
    if (active_scheduler.exchange(this))
        violation("a second machine was started before the first one was destroyed");
    if (processors != 0)
        processors_ =
            std::make_unique<Processors>(*this, dispatcher_, off_, hooks_, std::max(processors, 2u));
}

void RealScheduler::retire()
{
    if (!off_)
        switch_off();
    active_scheduler = nullptr;
}

Thread& RealScheduler::spawn(std::string name, std::function<void()> body)
{
    RealThread& thread = add(std::move(name), std::move(body));
    if (processors_)
        processors_->start(thread);
    else
        start(thread);
    return thread;
}

Thread& RealScheduler::spawn_for_host(std::string name, std::function<void()> body)
{
    RealThread& thread = add(std::move(name), std::move(body));
    start(thread);
    return thread;
}

RealThread& RealScheduler::add(std::string name, std::function<void()> body)
{
    auto owned = std::make_unique<RealThread>(Thread::Kind::spawned, std::move(name), this);
    RealThread& thread = *owned;
    thread.body = std::move(body);
    std::lock_guard guard(threads_lock_);
    threads_.push_back(std::move(owned));
    return thread;
}

void RealScheduler::start(RealThread& thread)
{
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
}

void* RealScheduler::host_thread_main(void* argument)
{
    auto& thread = *static_cast<RealThread*>(argument);
    this_thread = &thread;
    if (KernelScheduler* const owner = thread.owner)  // null: the machine is off already
        owner->entry().run_thread(thread, thread.body);
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
    const bool kicks = processors_ && processors_->kick_due();
    if (count == 0 && !kicks) {
        dispatcher_.unlock();
        return;
    }
    Processors::Kick kick = kicks ? processors_->take_kick() : Processors::Kick(nullptr);
    std::array<RealThread*, 16> threads;
    std::copy_n(to_wake_.begin(), count, threads.begin());
    to_wake_count_ = 0;
    dispatcher_.unlock();
    for (std::size_t index = 0; index < count; ++index)
        signal(*threads[index]);
    kick.give();
}

void RealScheduler::signal(RealThread& thread)
{
    if (thread.sleep.exchange(RealThread::woken, std::memory_order_acq_rel) == RealThread::asleep)
        futex_wake_one(thread.sleep);
}

void RealScheduler::wake(Thread& sleeper)
{
    auto& thread = static_cast<RealThread&>(sleeper);
    if (thread.fiber)
        return processors_->wake(thread);
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
    thread.sleep.store(RealThread::awake, std::memory_order_relaxed);
    unlock_dispatcher();
    for (const auto& hook : hooks_)
        hook();
    if (thread.fiber)
        return block_fiber(thread, deadline);
    thread.blocked.store(true, std::memory_order_release);

    const std::int64_t until_ns =
        deadline >= never / 100 ? -1 : std::max<std::int64_t>(0, origin_ns_ + deadline * 100);
    for (;;) {
        std::int32_t state = RealThread::awake;
        if (thread.sleep.compare_exchange_strong(state, RealThread::asleep, std::memory_order_acq_rel))
            futex_wait(thread.sleep, RealThread::asleep, until_ns);
        take_dispatcher();
        if (thread.wake_requested || (until_ns >= 0 && now() >= deadline)) {
            thread.blocked.store(false, std::memory_order_relaxed);
            return thread.wake_requested;
        }
        // A late signal of an earlier wait, or an early return of the host.
        thread.sleep.store(RealThread::awake, std::memory_order_relaxed);
        unlock_dispatcher();
    }
}

// Once the machine is off, it does not return.
void RealScheduler::take_dispatcher()
{
    dispatcher_.lock();
    if (off_.load(std::memory_order_relaxed)) {
        dispatcher_.unlock();
        park();
    }
}

bool RealScheduler::block_fiber(RealThread& thread, Ticks deadline)
{
    take_dispatcher();
    if (!thread.wake_requested) {
        processors_->wait(thread, deadline);
        if (off_.load(std::memory_order_relaxed)) {
            dispatcher_.unlock();
            park();
        }
    }
    return thread.wake_requested;
}

bool RealScheduler::wait_readable(int descriptor)
{
    auto& thread = static_cast<RealThread&>(self());
    if (!thread.fiber)
        return false;
    for (const auto& hook : hooks_)
        hook();
    take_dispatcher();
    processors_->wait_readable(thread, descriptor);
    if (off_.load(std::memory_order_relaxed)) {
        dispatcher_.unlock();
        park();
    }
    unlock_dispatcher();
    return true;
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
    spawn_for_host("run", [end, body = std::move(body)] {
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
    if (processors_)
        processors_->stop();
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

OwnedScheduler make_real_scheduler(unsigned processors, KernelEntry& entry)
{
    static auto& kept = *new std::vector<RealScheduler*>;  // where leak checkers find them
    return OwnedScheduler(kept.emplace_back(new RealScheduler(processors, entry)));
}

}  // namespace machine
