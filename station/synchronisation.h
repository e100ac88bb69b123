// SPDX-License-Identifier: MIT
// How far the driver has come with filling the system image from the server: from its messages, which tell
// begin and end, from the end of the thread that does it, and from answers to status polls in between. Any
// thread; messages come at up to DISPATCH_LEVEL.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "formats/wire.h"

namespace station {

struct SyncStatus {
    enum class State : std::uint8_t {
        waiting,
        asking_server,
        running,
        complete,
        stopped,
        failed,
        no_server_image
    };

    State state = State::waiting;
    std::uint32_t chunks_total = 0, chunks_done = 0;  // of 64 KB; 0 of 0 while that is not known
    std::uint32_t chunks_of_run = 0;                  // done by this run, in time_ms
    std::int64_t time_ms = 0;

    double megabytes_per_s() const;
    std::optional<double> seconds_left() const;
};

const char* state_name(SyncStatus::State state);

class Synchronisation {
public:
    // A message of the driver, in the thread that printed it. Times are those of one clock.
    void follow(const std::string& message, std::int64_t now_ms);
    // Whether an answer to a poll would tell anything new.
    bool wants_poll() const;
    void take(const formats::PollReply& reply, std::int64_t now_ms);
    SyncStatus status(std::int64_t now_ms) const;

private:
    // Where the run was, and when: what comes after it is what it has done.
    struct Base {
        std::uint32_t chunk;
        std::int64_t time_ms;
        bool exact;  // the run's very start
    };

    // What the driver's thread still touches when it ends, at a time of its own.
    struct Shared {
        std::mutex lock;  // guards all of Synchronisation
        SyncStatus::State state = SyncStatus::State::waiting;
    };
    struct ItsThread;

    void end(SyncStatus::State state, std::int64_t now_ms);

    const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::uint32_t total_ = 0, done_ = 0;
    std::int64_t start_ms_ = 0, end_ms_ = 0;
    std::optional<Base> base_;
};

}  // namespace station
