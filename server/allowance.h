// SPDX-License-Identifier: MIT
// How much a workstation may read and write in a second, over all its disks. What it took more is made up for
// by rest. Any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>

namespace server {

class Allowance {
public:
    explicit Allowance(unsigned mb_per_second) : bytes_per_ms_(std::uint64_t{mb_per_second} * 1000) {}

    // Returns the milliseconds of rest after so many bytes more.
    std::uint64_t take(std::uint64_t bytes, std::uint64_t now_ms)
    {
        std::lock_guard guard(lock_);
        const std::uint64_t now = now_ms * bytes_per_ms_;
        paid_ = std::max(paid_, now) + bytes;
        return (paid_ - now) / bytes_per_ms_;
    }

private:
    const std::uint64_t bytes_per_ms_;
    std::mutex lock_;
    std::uint64_t paid_ = 0;  // in bytes since the clock's start: until when everything taken is paid for
};

}  // namespace server
