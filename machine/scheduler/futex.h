// SPDX-License-Identifier: MIT
// The host's futex calls and a lock built on them, for the real scheduler.
#pragma once

#include <atomic>
#include <cstdint>

namespace machine {

// Sleeps while *word is `expected`, at most until the given time of CLOCK_MONOTONIC (negative: for
// ever). May return early.
void futex_wait(std::atomic<std::int32_t>& word, std::int32_t expected, std::int64_t until_ns = -1);
void futex_wake_one(std::atomic<std::int32_t>& word);

std::int64_t monotonic_ns();

// A lock for very short sections: spins a little, then sleeps.
class AdaptiveLock {
public:
    void lock()
    {
        std::int32_t expected = free;
        if (!word_.compare_exchange_strong(expected, taken, std::memory_order_acquire)) [[unlikely]]
            lock_contended();
    }

    void unlock()
    {
        if (word_.exchange(free, std::memory_order_release) == waited_for) [[unlikely]]
            futex_wake_one(word_);
    }

private:
    static constexpr std::int32_t free = 0, taken = 1, waited_for = 2;

    void lock_contended();

    std::atomic<std::int32_t> word_ = free;
};

}  // namespace machine
