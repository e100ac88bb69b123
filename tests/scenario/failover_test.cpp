// SPDX-License-Identifier: MIT
// Mirrored disks and lost servers: what is sent where, and what the slave has when the main server is gone.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

using formats::kind_write;
using formats::sub_request;

constexpr char switched[] = "\nQRN SCSI: Main Server Error, Try Use Slave";
constexpr char slave_lost[] = "\nQRN SCSI: Slave Server Error";

Plan mirrored(unsigned hot_retrys, std::uint64_t seed = 1)
{
    return {.seed = seed, .disks = {{.mirrored = true}}, .settings = {{"HOT_RETRYS", hot_retrys}}};
}

bool is_for(const simulation::BlockServer& server, const SeenPacket& packet)
{
    return packet.server.Ip[3] == server.address().Ip[3];
}

bool holds(simulation::BlockServer& server, std::uint32_t lba, const Bytes& data)
{
    return std::ranges::equal(data, std::span(server.content(0)).subspan(lba * 512, data.size()));
}

// All packets sent since they were last forgotten went to this server.
void expect_only(const Rig& rig, const simulation::BlockServer& server)
{
    EXPECT_FALSE(rig.packets().empty());
    for (const SeenPacket& packet : rig.packets())
        EXPECT_TRUE(is_for(server, packet)) << packet.time_ms;
}

TEST(Failover, Follows_the_time_out_after_HOT_RETRYS_earlier_ones)
{
    Plan by_default = mirrored(0);
    by_default.settings.clear();
    for (auto [plan, time_outs] :
         {std::pair(by_default, 22u), std::pair(mirrored(2), 3u), std::pair(mirrored(0), 1u)}) {
        Rig rig(plan);
        const unsigned after = time_outs;
        rig.run([&] {
            rig.main.stop();
            Pending request(rig);
            request.read(0, 0, 4096).wait();
            EXPECT_TRUE(request.ok());
            EXPECT_NEAR(request.took_ms(), after * 1110 + 0.2, exactly_ms);
            if (after == 3) {
                EXPECT_EQ(story(rig),
                          "read@0 query@110 read@1110 query@1220 read@2220 query@2330 read*@3330");
            }
            rig.forget_packets();
            Bytes data = pattern(0, 65536), read(65536);
            EXPECT_TRUE(rig.write(0, 0, data) && rig.read(0, 0, read));
            EXPECT_EQ(read, data);
            expect_only(rig, rig.slave);
            rig.scsi().shutdown();
            auto notices = rig.sent(sub_request, formats::kind_shutdown);
            ASSERT_EQ(notices.size(), 2u) << "the boot server is another one now";
            EXPECT_TRUE(is_for(rig.slave, notices[0]) && is_for(rig.main, notices[1]));
        });
        EXPECT_EQ(rig.log_count("Time Out"), after);
        EXPECT_EQ(rig.log_count(switched), 1u);
    }
}

TEST(Failover, Happens_once)
{
    Rig rig(mirrored(2));
    rig.run([&] {
        rig.main.stop();
        Bytes sector(512);
        EXPECT_TRUE(rig.read(0, 0, sector));
        rig.slave.stop();
        rig.main.start();
        rig.forget_packets();
        Pending request(rig);
        request.write(0, 0, sector).wait();
        EXPECT_FALSE(request.ok());
        expect_only(rig, rig.slave);
    });
    EXPECT_EQ(rig.log_count(switched), 1u);
    EXPECT_EQ(rig.log_count(slave_lost), 0u);
}

TEST(Failover, Needs_a_mirrored_disk_with_a_slave_server)
{
    for (bool is_mirrored : {true, false}) {
        Plan plan{.disks = {{}, {.mirrored = is_mirrored, .slave_server = false}},
                  .settings = {{"HOT_RETRYS", 2}}};
        Rig rig(plan);
        rig.run([&] {
            EXPECT_TRUE(rig.write(1, 0, Bytes(65536, 1)));
            rig.main.stop();
            Pending request(rig);
            request.read(1, 0, 512).wait();
            EXPECT_FALSE(request.ok());
            EXPECT_EQ(rig.log_count("Time Out"), 60u);
            expect_only(rig, rig.main);
        });
        EXPECT_FALSE(rig.logged(switched) || rig.logged(slave_lost));
    }
}

TEST(Failover, Mirrored_writes_go_to_the_main_and_then_to_the_slave_server)
{
    Rig rig(mirrored(21));
    rig.drop = [&, lost = false](const SeenPacket& packet) mutable {
        return is_for(rig.slave, packet) && packet.is(sub_request, kind_write) &&
               packet.header().Frag_Num == 2 && !std::exchange(lost, true);
    };
    rig.run([&] {
        Pending request(rig);
        request.write(0, 9, pattern(9, 9 * 1024)).wait();
        EXPECT_TRUE(request.ok());
        // Two packets; of the first copy a fragment is lost, which the slave says when the last one arrives.
        EXPECT_EQ(story(rig),
                  "write:1,2,3,4,5,6@0 write:1,2,3,4,5,6*@0.2 write:2*@0.4 write:1@0.6 write:1*@0.8");
        EXPECT_NEAR(request.took_ms(), 1.0, exactly_ms);
    });
    auto packets = rig.sent(sub_request, kind_write);
    ASSERT_EQ(packets.size(), 15u);
    for (auto [first, copy] : {std::pair(0, 6), std::pair(5, 11), std::pair(13, 14)}) {
        Bytes expected = packets[static_cast<unsigned>(first)].bytes;
        expected[8] ^= 0xFF, expected[9] ^= 0xFF;
        EXPECT_EQ(packets[static_cast<unsigned>(copy)].bytes, expected);
    }
    EXPECT_EQ(packets[13].header().Seq.get(), packets[0].header().Seq.get())
        << "complemented for the copy only";
    EXPECT_EQ(rig.main.content(0), rig.slave.content(0));
    EXPECT_TRUE(holds(rig.slave, 9, pattern(9, 9 * 1024)));
}

TEST(Failover, Lost_slave_is_left_behind)
{
    Rig rig(mirrored(2));
    rig.run([&] {
        rig.slave.stop();
        Pending request(rig);
        request.write(0, 0, pattern(0, 1024)).wait();
        EXPECT_TRUE(request.ok());
        EXPECT_EQ(story(rig),
                  "write:1@0 write:1*@0.2 query*@110.2 write:1*@1110.2 query*@1220.2 write:1*@2220.2 "
                  "query*@2330.2");
        EXPECT_NEAR(request.took_ms(), 3330.2, exactly_ms);
        rig.forget_packets();
        rig.slave.start();
        Bytes data(65536);
        EXPECT_TRUE(rig.write(0, 0, data) && rig.read(0, 0, data));
        expect_only(rig, rig.main);
        // Nothing is left to switch to.
        rig.main.stop();
        Pending last(rig);
        last.write(0, 0, data).wait();
        EXPECT_FALSE(last.ok());
    });
    EXPECT_EQ(rig.log_count(slave_lost), 1u);
    EXPECT_FALSE(rig.logged(switched));
}

TEST(Failover, Of_many_workers_at_once_is_one)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(20); ++seed) {
        Rig rig(mirrored(static_cast<unsigned>(seed % 3), seed));
        rig.run([&] {
            rig.main.stop();
            Pending read(rig), write(rig), other(rig);
            read.read(0, 0, 65536);
            write.write(0, 500, pattern(500, 65536));
            other.write(0, 900, pattern(900, 512));
            for (Pending* request : {&read, &write, &other}) {
                request->wait();
                EXPECT_TRUE(request->ok()) << "seed " << seed;
            }
            EXPECT_TRUE(holds(rig.slave, 500, pattern(500, 65536)));
        });
        EXPECT_EQ(rig.log_count(switched), 1u) << "seed " << seed;
    }
}

// What had arrived of the packet came from a server whose disk may have been another.
TEST(Failover, Read_under_way_takes_nothing_from_the_server_that_is_left)
{
    Rig rig(mirrored(2));
    const Bytes old = pattern(0, 8192, 1), kept = pattern(0, 8192, 2);
    rig.drop = [&](const SeenPacket& packet) {
        return packet.direction == machine::Direction::to_workstation && is_for(rig.main, packet) &&
               packet.header().Frag_Num > 3;
    };
    rig.run([&] {
        std::copy(old.begin(), old.end(), rig.main.content(0).begin());
        std::copy(kept.begin(), kept.end(), rig.slave.content(0).begin());
        Pending read(rig);
        read.read(0, 0, 8192).wait();
        EXPECT_TRUE(read.ok());
        EXPECT_EQ(read.data(), kept);
    });
    EXPECT_EQ(rig.log_count(switched), 1u);
}

// The main server completes a write and dies; while the copy waits for the slave, a read of another worker
// makes the slave the main server. The copy must follow it there.
TEST(Failover, During_the_slave_copy_of_a_write_does_not_lose_the_copy)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(20); ++seed)
        for (int write_later_ms : {0, 300, 700}) {
            Rig rig(mirrored(1, seed));
            rig.drop = [&](const SeenPacket& packet) {
                bool is_read = packet.header().Kind == formats::kind_read;
                return is_for(rig.main, packet) ? is_read : !is_read && !rig.logged(switched);
            };
            rig.run([&] {
                Pending read(rig), write(rig);
                read.read(0, 0, 512);
                rig.machine.sleep_ms(write_later_ms);
                write.write(0, 20, pattern(20, 6 * 512));
                rig.machine.sleep_ms(50);
                rig.main.stop();
                read.wait();
                write.wait();
                EXPECT_TRUE(read.ok() && write.ok());
            });
            EXPECT_EQ(rig.log_count(switched), 1u);
            EXPECT_EQ(rig.log_count(slave_lost), 0u) << "it was not lost but promoted";
            EXPECT_TRUE(holds(rig.slave, 20, pattern(20, 6 * 512)))
                << "seed " << seed << ", write " << write_later_ms << " ms later";
        }
}

}  // namespace
}  // namespace scenario
