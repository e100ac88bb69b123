// SPDX-License-Identifier: MIT
#include "machine/scheduler/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <thread>

namespace machine {
namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;

// Longer than a section under the lock; on one processor, waiting for its owner awake is useless.
const int spins_max = std::thread::hardware_concurrency() > 1 ? 60 : 0;

}  // namespace

void futex_wait(std::atomic<std::int32_t>& word, std::int32_t expected, std::int64_t until_ns)
{
    timespec until{};
    if (until_ns >= 0) {
        until.tv_sec = static_cast<time_t>(until_ns / ns_per_second);
        until.tv_nsec = static_cast<long>(until_ns % ns_per_second);
    }
    syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected,
            until_ns >= 0 ? &until : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
}

void futex_wake_one(std::atomic<std::int32_t>& word)
{
    syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}

std::int64_t monotonic_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

void AdaptiveLock::lock_contended()
{
    for (int spin = 0; spin < spins_max; ++spin) {
        __builtin_ia32_pause();
        std::int32_t expected = free;
        if (word_.load(std::memory_order_relaxed) == free &&
            word_.compare_exchange_strong(expected, taken, std::memory_order_acquire))
            return;
    }
    while (word_.exchange(waited_for, std::memory_order_acquire) != free)
        futex_wait(word_, waited_for);
}

}  // namespace machine
