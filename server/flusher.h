// SPDX-License-Identifier: MIT
// Flushes stores in a thread of its own, so that a medium that takes its time with one workstation's shutdown
// keeps nobody else waiting. The server's thread asks, and collects what became of it. One lock guards the
// lists; it is not held during a flush.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "server/protocol.h"

namespace server {

class Flusher {
public:
    struct Job {
        unsigned disk;
        BlockStore* store;
        Peer workstation;
        int error = 0;  // of the flush, an errno
    };

    Flusher();
    ~Flusher();

    // Returns when the flushes asked for are done; no further ones are taken.
    void finish();

    void start(const Job& job);
    // Those that ended since the last call.
    std::vector<Job> take_ended();

private:
    void run();

    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Job> waiting_;
    std::vector<Job> ended_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace server
