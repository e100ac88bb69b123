// SPDX-License-Identifier: MIT
// What an idle processor waits for besides ready threads: the host's descriptors that threads want to read,
// and a kick from another host thread.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <unordered_map>

#include "machine/scheduler/real_thread.h"

namespace machine {

class HostEvents {
public:
    HostEvents();
    ~HostEvents();
    HostEvents(const HostEvents&) = delete;
    HostEvents& operator=(const HostEvents&) = delete;

    // Descriptors that have something to read, as the host told. One processor looks at a time, or several.
    struct Readable {
        static constexpr unsigned count_max = 16;
        std::array<int, count_max> descriptors;
        unsigned count = 0;
        bool kicked = false;
    };
    // Without the dispatcher lock.
    Readable look();
    // Waits so long at most, or, negative, until something comes or a kick.
    Readable sleep(std::int64_t at_most_ns);
    // Ends a sleep, or the next one. Any host thread.
    void kick();

    // The rest under the dispatcher lock. False: something came since the last time, and the thread reads
    // again. True: it is noted as the one who waits for this descriptor, which stays open from now on.
    bool note_waiter(int descriptor, RealThread& thread);
    // The thread that waits for this descriptor, which has something to read now; or null.
    RealThread* take_waiter(int descriptor);

private:
    struct Watched {
        RealThread* waiter = nullptr;
        bool readable = false;
    };

    Readable taken(int count, const epoll_event* events) const;

    const int epoll_;
    const int kick_;
    std::unordered_map<int, Watched> watched_;
};

}  // namespace machine
