// SPDX-License-Identifier: MIT
// What one LUN has done, counted by its queues in any thread and by the driver's messages, shown by
// the status view and the statistics file.
#pragma once

#include <atomic>
#include <cstdint>

#include "station/answer_times.h"

namespace station {

struct LunStatistics {
    std::atomic<std::uint64_t> reads = 0;  // requests of clients
    std::atomic<std::uint64_t> writes = 0;
    std::atomic<std::uint64_t> flushes = 0;
    std::atomic<std::uint64_t> sectors_read = 0;
    std::atomic<std::uint64_t> sectors_written = 0;
    std::atomic<std::uint64_t> errors = 0;
    std::atomic<std::uint32_t> queue = 0;  // requests in flight
    AnswerTimes answer_times;
    std::atomic<std::int64_t> news_us = 0;  // when a request ended last, or came to an empty queue

    // How long requests have been waiting without one coming back.
    std::int64_t silent_ms(std::int64_t now_us) const
    {
        return queue != 0 && now_us > news_us ? (now_us - news_us) / 1000 : 0;
    }

    std::atomic<std::uint64_t> time_outs = 0;  // packets, as the driver reports them
    enum class Server : std::uint8_t { main, main_alone, slave };
    std::atomic<Server> server = Server::main;
};

}  // namespace station
