// SPDX-License-Identifier: MIT
// What the scheduler and the executive keep of one kernel thread. The executive's fields are touched by
// the thread itself only, except the dispatcher header, which the dispatcher lock guards.
#pragma once

#include <atomic>
#include <csetjmp>
#include <cstdint>
#include <string>

#include <nt.h>

#include "machine/scheduler/deferred_wake.h"

namespace machine {

class KernelScheduler;

struct HeldLock {
    PKSPIN_LOCK lock;
    KIRQL old_irql;  // to which the release must return
};

struct Thread {
    static constexpr unsigned held_locks_max = 8;
    enum class Kind {
        spawned,   // started by the scheduler, dropped when the machine is switched off
        adopted,   // a host thread that called in
        callback,  // the context of timer callbacks
    };

    Thread(Kind kind, std::string name, KernelScheduler* owner);
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    PKTHREAD object() { return reinterpret_cast<PKTHREAD>(this); }

    DISPATCHER_HEADER header{};           // first: the address of a Thread is the kernel's thread object
    std::atomic<KernelScheduler*> owner;  // null once the machine of a spawned thread is off
    const Kind kind;
    std::atomic<bool> gone = false;  // ended, or parked for ever
    KIRQL irql;
    std::uint8_t held_count = 0;
    KPRIORITY priority = 8;
    HeldLock held[held_locks_max];
    KWAIT_BLOCK wait_block{};
    DeferredWake deferred_wake;
    std::string name;
    std::jmp_buf end{};  // PsTerminateSystemThread leaves the thread through it
};

static_assert(offsetof(Thread, header) == 0);

}  // namespace machine
