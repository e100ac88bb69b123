// SPDX-License-Identifier: MIT
#include "station/stop_signal.h"

#include <csignal>
#include <cstdlib>
#include <thread>

namespace station {

namespace {

constexpr std::chrono::milliseconds repetition_time{100};

}  // namespace

// The thread has no end: this object lives as long as the process.
StopSignal::StopSignal()
{
    static sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([this] {
        int signal;
        sigwait(&signals, &signal);
        {
            std::lock_guard guard(lock_);
            asked_ = true;
            changed_.notify_all();
        }
        const auto asked_at = std::chrono::steady_clock::now();
        do {
            sigwait(&signals, &signal);
        } while (std::chrono::steady_clock::now() - asked_at < repetition_time);
        std::_Exit(128 + signal);
    }).detach();
}

bool StopSignal::wait_for(std::chrono::milliseconds time)
{
    std::unique_lock lock(lock_);
    return changed_.wait_for(lock, time, [this] { return asked_; });
}

}  // namespace station
