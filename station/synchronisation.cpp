// SPDX-License-Identifier: MIT
#include "station/synchronisation.h"

#include <algorithm>

#include "formats/image_area.h"

namespace station {

using State = SyncStatus::State;

double SyncStatus::megabytes_per_s() const
{
    const double megabytes = static_cast<double>(chunks_of_run) * formats::chunk_bytes / (1 << 20);
    return time_ms > 0 ? megabytes * 1000 / static_cast<double>(time_ms) : 0;
}

std::optional<double> SyncStatus::seconds_left() const
{
    if (state != State::running || chunks_of_run == 0 || chunks_total < chunks_done)
        return {};
    const double chunks_per_ms =
        static_cast<double>(chunks_of_run) / static_cast<double>(std::max<std::int64_t>(time_ms, 1));
    return static_cast<double>(chunks_total - chunks_done) / chunks_per_ms / 1000;
}

const char* state_name(State state)
{
    switch (state) {
    case State::waiting:
        break;
    case State::asking_server:
        return "asking server";
    case State::running:
        return "running";
    case State::complete:
        return "complete";
    case State::stopped:
        return "stopped";
    case State::failed:
        return "failed";
    case State::no_server_image:
        return "no server image";
    }
    return "waiting";
}

SyncStatus Synchronisation::status(const void* exported, std::int64_t now_ms)
{
    if (!exported)
        return {};
    const auto& now = *static_cast<const volatile formats::SyncStats*>(exported);
    SyncStatus status{.state = State{now.State}};
    if (status.state == State::waiting || status.state == State::asking_server ||
        status.state == State::no_server_image)
        return status;
    if (status.state != State::running && !end_ms_)
        end_ms_ = now_ms;
    const std::uint32_t first = now.First_Chunk, next = now.Chunk;
    status.chunks_total = now.Chunks;
    status.chunks_done = std::min(next, status.chunks_total);
    status.chunks_of_run = status.chunks_done > first ? status.chunks_done - first : 0;
    const auto start_ms = static_cast<std::int64_t>(now.Start_Time / 10'000);
    status.time_ms = std::max<std::int64_t>(end_ms_.value_or(now_ms) - start_ms, 0);
    return status;
}

}  // namespace station
