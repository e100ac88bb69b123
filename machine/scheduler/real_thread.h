// SPDX-License-Identifier: MIT
// A kernel thread of the real scheduler: on a host thread of its own, or a fiber that the machine's
// processors run.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "machine/scheduler/fiber.h"
#include "machine/scheduler/scheduler.h"
#include "machine/scheduler/thread.h"

namespace machine {

class Processors;

struct RealThread : Thread {
    using Thread::Thread;

    std::function<void()> body;
    bool wake_requested = false;  // dispatcher lock

    // On a host thread of its own: where that sleeps.
    enum Sleep : std::int32_t { awake = 0, woken = 1, asleep = -1 };
    std::atomic<std::int32_t> sleep = awake;
    // It touches nothing of the machine's before it has taken the dispatcher lock again.
    std::atomic<bool> blocked = false;

    // A fiber; what follows is the processors', under the dispatcher lock.
    std::unique_ptr<Fiber> fiber;  // null: a host thread of its own
    Processors* processors = nullptr;
    RealThread* next_ready = nullptr;
    std::uint64_t ready_since = 0;  // in processor cycles
    bool waiting = false;
    Ticks deadline = never;        // while it waits
    std::uint64_t blocked_as = 0;  // orders equal deadlines
};

}  // namespace machine
