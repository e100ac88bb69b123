// SPDX-License-Identifier: MIT
// What the station shows of the driver's caches and of the filling of its local image.
#include <gtest/gtest.h>

#include <latch>
#include <nlohmann/json.hpp>
#include <thread>

#include "station/driver_messages.h"
#include "station/station_status.h"

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

namespace {

formats::PollReply position(std::uint32_t units, std::uint32_t chunk)
{
    formats::PollReply reply{};
    reply.Image_Units.set(units);
    reply.Image_Position.set(chunk);
    return reply;
}

constexpr const char* begins = "\nQRN_RW_HDD_Sync";

// A synchronisation told of by a thread of its own, as the driver does it; its server's image is there.
struct Filling {
    explicit Filling(std::vector<std::string> messages = {begins, "\nQRNH_Header: Size=00020000 "})
        : thread([this, messages = std::move(messages)] {
              for (const std::string& each : messages)
                  sync.follow(each, 1000);
              told.count_down();
              ended.wait();
          })
    {
        told.wait();
    }
    ~Filling() { thread_ends(); }
    void thread_ends()
    {
        if (thread.joinable()) {
            ended.count_down();
            thread.join();
        }
    }
    std::string line(std::int64_t now_ms) const
    {
        StationStatus status;
        status.synchronisation = sync.status(now_ms);
        const std::string text = status_line(status);
        return text.substr(text.find("image: ") + 7);
    }
    Synchronisation sync;
    std::latch told{1}, ended{1};
    std::thread thread;
};

}  // namespace

TEST(Synchronisation, Progress_and_rate_come_from_polls_and_the_driver_has_the_last_word)
{
    Filling run;
    run.sync.take(position(1024, 256), 2000);
    run.sync.take(position(1024, 512), 6000);
    EXPECT_EQ(run.line(6000),
              "[###############...............] 50 %, 512 of 1024 chunks, 32 of 64 MB, 4.0 MB/s, 8 s left");
    StationStatus status;
    status.synchronisation = run.sync.status(6000);
    const auto json = nlohmann::json::parse(status_json(status));
    EXPECT_EQ(json["synchronisation"]["state"], "running");
    EXPECT_EQ(json["synchronisation"]["chunks_done"], 512);
    EXPECT_EQ(json["synchronisation"]["seconds_left"], 8.0);

    run.sync.follow("\nQRNH_IMG_SYNC: 0000-03FF(400)    63M   9S  7274K/S", 9000);
    run.sync.follow("\nQRNH_IMG_SYNC: End=0", 9000);
    EXPECT_FALSE(run.sync.wants_poll());
    EXPECT_EQ(run.line(20000), "complete after 8.0 s: 100 %, 1024 of 1024 chunks, 64 of 64 MB, 8.0 MB/s");
}

TEST(Synchronisation, Every_way_to_end_has_a_name)
{
    const std::pair<std::string, std::string> ends[] = {{"\nQRNH_IMG_SYNC: End=1", "stopped"},
                                                        {"\nQRNH_IMG_SYNC: End=2", "failed"}};
    for (const auto& [message, state] : ends) {
        Filling run;
        run.sync.take(position(0x80000000, 0), 1500);
        run.sync.follow(message, 2500);
        run.thread_ends();
        EXPECT_EQ(run.line(9000).find(state + " after 1.0 s: 0 %"), 0u) << run.line(9000);
    }
    for (const std::vector<std::string>& messages :
         {std::vector<std::string>{begins}, {begins, "\nQRNH_Header: Size=00020000 "}}) {
        Filling run(messages);
        run.sync.follow("\nQRNH_Header: Read Error", 1500);  // of the local image's header
        EXPECT_EQ(run.line(1500).find("not filled"), std::string::npos);
        run.thread_ends();
        EXPECT_EQ(run.line(2000), "not filled, the server has no usable image of the disk");
    }
}
