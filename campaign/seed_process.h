// SPDX-License-Identifier: MIT
// One seed in a process of its own, which may fail, crash or hang without harm to others.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "campaign/options.h"

namespace campaign {

class SeedProcess {
public:
    SeedProcess(std::uint64_t seed, const Options& options);
    ~SeedProcess();
    SeedProcess(const SeedProcess&) = delete;
    SeedProcess& operator=(const SeedProcess&) = delete;

    std::uint64_t seed() const { return seed_; }
    int output() const { return output_; }  // to be polled

    // Takes what it has printed; false when it has ended.
    bool read();
    // Ends it when its time is over.
    void check_time();

    // When it has ended.
    bool passed() const { return verdict_.empty(); }
    const std::string& verdict() const { return verdict_; }  // how it ended when it did not pass
    const std::string& log() const { return log_; }

private:
    void reap();

    std::uint64_t seed_;
    pid_t process_;
    int output_;
    std::chrono::steady_clock::time_point limit_;
    bool timed_out_ = false;
    std::string log_, verdict_;
};

}  // namespace campaign
