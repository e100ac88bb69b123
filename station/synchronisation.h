// SPDX-License-Identifier: MIT
// How far the driver has come with filling the system image from the server: what it exports, and when the
// station saw that end. One thread.
#pragma once

#include <cstdint>
#include <optional>

#include "formats/sync_stats.h"

namespace station {

struct SyncStatus {
    enum class State : std::uint32_t {
        waiting = formats::sync_waiting,
        asking_server = formats::sync_asking_server,
        running = formats::sync_running,
        complete = formats::sync_complete,
        stopped = formats::sync_stopped,
        failed = formats::sync_failed,
        no_server_image = formats::sync_no_server_image
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
    // exported: the driver's QRN_Sync_Stats, null while it has none. now_ms: since the machine's start.
    SyncStatus status(const void* exported, std::int64_t now_ms);

private:
    std::optional<std::int64_t> end_ms_;  // once it was seen to be over
};

}  // namespace station
