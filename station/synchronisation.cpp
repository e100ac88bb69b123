// SPDX-License-Identifier: MIT
#include "station/synchronisation.h"

#include <algorithm>
#include <cstdio>

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

// A thread that ends before it told how the run ended had none: what the server has could not be used.
struct Synchronisation::ItsThread {
    std::shared_ptr<Shared> shared;

    ~ItsThread()
    {
        if (!shared)
            return;
        std::lock_guard guard(shared->lock);
        if (shared->state == State::asking_server || shared->state == State::running)
            shared->state = State::no_server_image;
    }
};

// The only header that the synchronisation's own thread reads is that of the server's image.
void Synchronisation::follow(const std::string& message, std::int64_t now_ms)
{
    thread_local ItsThread its_thread;
    const auto begins = [&](const char* text) { return message.starts_with(text); };
    std::lock_guard guard(shared_->lock);
    unsigned first, chunk, total, status;
    if (begins("\nQRN_RW_HDD_Sync")) {
        its_thread.shared = shared_;
        shared_->state = State::asking_server;
    } else if (its_thread.shared && begins("\nQRNH_Header: Size=")) {
        shared_->state = State::running;
        start_ms_ = now_ms;
    } else if (std::sscanf(message.c_str(), "\nQRNH_IMG_SYNC: %x-%x(%x)", &first, &chunk, &total) == 3) {
        if (!base_ || !base_->exact)
            base_ = Base{first, start_ms_, true};
        total_ = total;
        done_ = std::max(done_, chunk);
    } else if (std::sscanf(message.c_str(), "\nQRNH_IMG_SYNC: End=%u", &status) == 1) {
        end(status == 0 ? State::complete : status == 1 ? State::stopped : State::failed, now_ms);
    }
}

void Synchronisation::end(State state, std::int64_t now_ms)
{
    shared_->state = state;
    end_ms_ = now_ms;
    if (state == State::complete)
        done_ = total_;
}

bool Synchronisation::wants_poll() const
{
    std::lock_guard guard(shared_->lock);
    return shared_->state == State::running;
}

// A poll that was answered just before the run set out shows the position at which an earlier start stopped,
// or that of an image which is about to be thrown away.
void Synchronisation::take(const formats::PollReply& reply, std::int64_t now_ms)
{
    std::lock_guard guard(shared_->lock);
    if (shared_->state != State::running || reply.Image_Units.get() == 0)
        return;
    const std::uint32_t position = reply.Image_Position.get();
    if (!base_ || position < base_->chunk)
        base_ = Base{position, now_ms, false};
    total_ = reply.Image_Units.get();
    done_ = std::min(position, total_);
}

SyncStatus Synchronisation::status(std::int64_t now_ms) const
{
    std::lock_guard guard(shared_->lock);
    SyncStatus status{.state = shared_->state, .chunks_total = total_, .chunks_done = done_};
    if (base_) {
        status.chunks_of_run = done_ > base_->chunk ? done_ - base_->chunk : 0;
        status.time_ms =
            std::max<std::int64_t>((shared_->state == State::running ? now_ms : end_ms_) - base_->time_ms, 0);
    }
    return status;
}

}  // namespace station
