// SPDX-License-Identifier: MIT
// What owns a real scheduler: destroying it switches the machine off and leaves the scheduler itself to
// the threads that are parked in it.
#include <vector>

#include "machine/scheduler/real_scheduler.h"

namespace machine {
namespace {

class RealHandle final : public Scheduler {
public:
    explicit RealHandle(KernelEntry& entry) : inner_(*new RealScheduler(entry)) { kept().push_back(&inner_); }
    ~RealHandle() override { inner_.retire(); }

    bool simulated() const override { return false; }
    Ticks now() override { return inner_.now(); }
    Thread& spawn(std::string name, std::function<void()> body) override
    {
        return inner_.spawn(std::move(name), std::move(body));
    }
    Thread* current() override { return inner_.current(); }
    void lock_dispatcher() override { inner_.lock_dispatcher(); }
    void unlock_dispatcher() override { inner_.unlock_dispatcher(); }
    bool block(Ticks deadline) override { return inner_.block(deadline); }
    void wake(Thread& thread) override { inner_.wake(thread); }
    void preempt() override {}
    void spin() override { inner_.spin(); }
    TimerId call_at(Ticks when, std::function<void()> callback) override
    {
        return inner_.call_at(when, std::move(callback));
    }
    bool cancel(TimerId id) override { return inner_.cancel(id); }
    void add_block_hook(std::function<void()> hook) override { inner_.add_block_hook(std::move(hook)); }
    bool run(std::function<void()> body) override { return inner_.run(std::move(body)); }
    void switch_off() override { inner_.switch_off(); }

private:
    // Never freed, and reachable for leak checkers.
    static std::vector<RealScheduler*>& kept()
    {
        static auto& all = *new std::vector<RealScheduler*>;
        return all;
    }

    RealScheduler& inner_;
};

}  // namespace

std::unique_ptr<Scheduler> make_real_scheduler(KernelEntry& entry)
{
    return std::make_unique<RealHandle>(entry);
}

}  // namespace machine
