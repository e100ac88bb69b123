// SPDX-License-Identifier: MIT
// A wake-up that a thread puts off. One that queues work mostly goes on to do it itself, and where waking
// another is dear the waiters of a semaphore that it releases had better sleep on meanwhile. They are woken,
// at the latest, when the thread waits itself, ends, or calls wake_waiters(); when it releases another
// semaphore; and when it releases the same one again after a while. Nobody looks at the time otherwise: a
// thread that goes on without any of these keeps them asleep.
//
// One in each thread, touched by that thread alone, under the dispatcher lock.
#pragma once

#include <cstdint>
#include <utility>

#include <nt.h>

namespace machine {

class DeferredWake {
public:
    // The thread has released this object, at this time in processor cycles. Returns an object whose waiters
    // are to be woken now, or null.
    DISPATCHER_HEADER* put_off(DISPATCHER_HEADER& object, std::uint64_t now)
    {
        if (object_ == &object && now - since_ <= longest_cycles)
            return nullptr;
        since_ = now;
        return std::exchange(object_, &object);
    }

    // The object whose waiters are to be woken now, or null. From then on nothing is put off.
    DISPATCHER_HEADER* take() { return std::exchange(object_, nullptr); }

    bool pending() const { return object_ != nullptr; }

private:
    static constexpr std::uint64_t longest_cycles = 2'500'000;  // about 1 ms

    DISPATCHER_HEADER* object_ = nullptr;
    std::uint64_t since_ = 0;
};

}  // namespace machine
