// SPDX-License-Identifier: MIT
#include "tools/progress.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

#include "tools/errors.h"

namespace image_tool {

namespace {

constexpr std::uint64_t first_after_ms = 500;
constexpr std::uint64_t interval_ms = 100;

volatile sig_atomic_t stop_requested = 0;

extern "C" void note_stop(int)
{
    stop_requested = 1;
}

std::uint64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

}  // namespace

void take_signals()
{
    struct sigaction action {};
    action.sa_handler = note_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

Progress::Progress(const char* what, std::uint64_t total)
    : what_(what), total_(std::max<std::uint64_t>(total, 1)), next_ms_(now_ms() + first_after_ms),
      is_shown_(isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (was_shown_)
        fmt::print(stderr, "\r\033[K");
}

void Progress::at(std::uint64_t done)
{
    if (stop_requested != 0)
        throw ToolError("stopped by a signal");
    if (!is_shown_ || now_ms() < next_ms_)
        return;
    next_ms_ = now_ms() + interval_ms;
    was_shown_ = true;
    fmt::print(stderr, "\r{} {:3}%", what_, std::min(done, total_) * 100 / total_);
    std::fflush(stderr);
}

}  // namespace image_tool
