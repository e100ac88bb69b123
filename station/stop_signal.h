// SPDX-License-Identifier: MIT
// SIGINT and SIGTERM as one request to stop. Made first thing in main, before any thread: the signals
// are blocked everywhere and taken by a thread of their own. A second one ends the
// process at once, for the case that the orderly way hangs. (One that comes within a tenth of a second is the same:
// some senders signal the process and its group.)
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace station {

class StopSignal {
public:
    StopSignal();

    // Waits up to this long; true when the stop has been asked for.
    bool wait_for(std::chrono::milliseconds time);

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool asked_ = false;
};

}  // namespace station
