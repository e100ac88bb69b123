// SPDX-License-Identifier: MIT
// What the station shows of the driver's caches and of the filling of its local image.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "station/driver_messages.h"
#include "station/live_table.h"
#include "station/station_status.h"
#include "station/stop_signal.h"

using namespace station;

TEST(StationStatus, Cache_is_shown_for_the_disks_that_have_one)
{
    const std::uint32_t words[4][8] = {{}, {}, {512, 8192, 1, 2, 3, 4000000000, 5, 6}, {}};
    AllLunStatistics counts;
    StationStatus status;
    for (const unsigned lun : {0u, 2u})
        status.luns.push_back({lun, 64, &counts[lun], cache_statistics(words, lun)});
    const auto json = nlohmann::json::parse(status_json(status));
    EXPECT_FALSE(json["luns"][0].contains("cache"));
    EXPECT_EQ(json["luns"][1]["cache"],
              nlohmann::json::parse(R"({"size_mb": 512, "blocks": 8192, "blocks_used": 1, "hits": 2,
                  "misses": 3, "fills": 4000000000, "write_backs": 5, "write_throughs": 6})"));
    const std::string table = status_table(status);
    EXPECT_NE(table.find("\ncache "), std::string::npos) << table;
    EXPECT_NE(table.find(" 4000000000 "), std::string::npos) << table;

    status.luns = {{0, 64, &counts[0], cache_statistics(nullptr, 0)}};
    EXPECT_EQ(status_table(status).find("cache"), std::string::npos) << "a driver that exports none";
}

// The orderly way hangs here: the process only ever waits. What comes at once after the first signal is the
// same one.
TEST(StopSignal, Second_signal_ends_the_process_at_once)
{
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t process = fork();
    if (process == 0) {
        StopSignal stop;
        for (char byte = 'r';; byte = 's') {
            if (write(told[1], &byte, 1) != 1)
                _exit(1);
            while (!stop.wait_for(std::chrono::hours(1))) {
            }
            if (byte == 's')
                pause();
        }
    }
    char byte = 0;
    ASSERT_EQ(read(told[0], &byte, 1), 1);
    kill(process, SIGTERM);
    ASSERT_EQ(read(told[0], &byte, 1), 1);
    EXPECT_EQ(byte, 's') << "the first one is asked for, and ends nothing";
    int status = 0;
    while (waitpid(process, &status, WNOHANG) == 0) {
        kill(process, SIGTERM);
        std::this_thread::yield();
    }
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
    close(told[0]);
    close(told[1]);
}

TEST(AnswerTimes, Percentiles_are_right_within_an_eighth_of_an_octave)
{
    AnswerTimes times;
    EXPECT_EQ(AnswerTimes::percentile_ms(times.counts(), {}, 99), 0);
    for (const std::int64_t us : {-1, 0, 7, 8, 9, 1000, 999'999})
        times.add(us);
    const auto before = times.counts();
    for (int i = 0; i < 98; ++i)
        times.add(1000 + i);
    times.add(50'000);
    times.add(900'000'000'000);
    const auto now = times.counts();
    EXPECT_NEAR(AnswerTimes::percentile_ms(now, before, 50), 1.05, 0.12);
    EXPECT_NEAR(AnswerTimes::percentile_ms(now, before, 99), 50, 7);
    EXPECT_NEAR(AnswerTimes::percentile_ms(now, before, 100), 900e6, 120e6);
}

TEST(LiveTable, Fits_any_terminal_and_tells_rates_since_the_table_before)
{
    AllLunStatistics counts;
    const std::uint32_t words[4][8] = {{512, 8192, 1, 2, 3, 4000000000, 5, 6}, {}, {}, {}};
    StationStatus status;
    status.luns = {{0, 64, &counts[0], cache_statistics(words, 0)}, {1, 64, &counts[1]}};
    status.uptime_ms = 1'000'000;
    status.synchronisation = SyncStatus{.state = SyncStatus::State::running, .chunks_total = 1'000'000};
    LiveTable table;
    table.draw(status, 80, false);
    status.uptime_ms += 2000;
    counts[0].reads = 400;
    counts[0].sectors_read = 250'000;  // 128 MB in 2 s
    counts[0].answer_times.add(3000);
    counts[1].server = LunStatistics::Server::main_alone;
    counts[1].queue = 3;
    counts[1].news_us = monotonic_us() - 12'500'000;
    for (const unsigned columns : {200u, 100u, 80u, 60u, 41u}) {
        LiveTable fresh = table;
        const std::string text = fresh.draw(status, columns, false);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), std::max(columns, 60u)) << columns << "\n" << text;
        EXPECT_NE(text.find(" 64.0 "), std::string::npos) << text;
        EXPECT_NE(text.find("silent for 12 s, 3 requests wait"), std::string::npos) << text;
        EXPECT_EQ(text.find('\x1b'), std::string::npos);
        if (columns == 200) {
            EXPECT_NE(text.find(" 200 "), std::string::npos) << "reads per second\n" << text;
        }
        LiveTable again = table;
        const std::string bright = again.draw(status, columns, true);
        EXPECT_NE(bright.find("\x1b[31m     silent for"), std::string::npos) << bright;
        EXPECT_EQ(std::ranges::count(bright, '\n'), std::ranges::count(text, '\n'));
    }
    counts[1].queue = 0;
    EXPECT_EQ(table.draw(status, 80, false).find("silent"), std::string::npos) << "nobody waits";
}

namespace {

constexpr std::uint64_t ms = 10'000;  // in the unit of Start_Time

std::string image_line(Synchronisation& sync, const formats::SyncStats& exported, std::int64_t now_ms)
{
    StationStatus status;
    status.synchronisation = sync.status(&exported, now_ms);
    const std::string text = status_line(status);
    return text.substr(text.find("image: ") + 7);
}

}  // namespace

TEST(Synchronisation, Progress_and_rate_are_those_of_this_start)
{
    Synchronisation sync;
    formats::SyncStats exported{formats::sync_running, 1024, 256, 512, 2000 * ms};
    EXPECT_EQ(image_line(sync, exported, 6000),
              "[###############...............] 50 %, 512 of 1024 chunks, 32 of 64 MB, 4.0 MB/s, 8 s left");
    StationStatus status;
    status.synchronisation = sync.status(&exported, 6000);
    const auto json = nlohmann::json::parse(status_json(status));
    EXPECT_EQ(json["synchronisation"]["state"], "running");
    EXPECT_EQ(json["synchronisation"]["chunks_done"], 512);
    EXPECT_EQ(json["synchronisation"]["seconds_left"], 8.0);

    exported.State = formats::sync_complete;
    exported.Chunk = 1024;
    image_line(sync, exported, 8000);
    EXPECT_EQ(image_line(sync, exported, 20000),
              "complete after 6.0 s: 100 %, 1024 of 1024 chunks, 64 of 64 MB, 8.0 MB/s");
}

TEST(Synchronisation, Every_state_has_words)
{
    const std::pair<std::uint32_t, std::string> states[] = {
        {formats::sync_stopped, "stopped after 1.0 s: 0 %"},
        {formats::sync_failed, "failed after 1.0 s: 0 %"},
        {formats::sync_no_server_image, "not filled, the server has no usable image of the disk"}};
    for (const auto& [state, text] : states) {
        Synchronisation sync;
        const std::string line = image_line(sync, {state, 0x80000000, 0, 0, 1500 * ms}, 2500);
        EXPECT_EQ(line.find(text), 0u) << line;
    }
    for (const std::uint32_t state : {formats::sync_waiting, formats::sync_asking_server}) {
        Synchronisation sync;
        EXPECT_EQ(image_line(sync, {state, 0, 0, 0, 0}, 1500).find("not filled"), std::string::npos);
    }
    EXPECT_EQ(Synchronisation().status(nullptr, 1500).state, SyncStatus::State::waiting)
        << "a driver without";
}
