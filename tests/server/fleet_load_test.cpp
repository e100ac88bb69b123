// SPDX-License-Identifier: MIT
// What workstations of a fleet get of its storage, each beside the others.
#include "tests/server/fleet_room.h"

using namespace server_test;

namespace {

TEST(A_fleet_under_load, Answers_one_that_boots_while_another_copies)
{
    Room room("{ image = \"golden\" }");
    Pc copying(room, 0), booting(room, 1);
    copying.boot(1), booting.boot(1);
    room.network.order.clear();
    for (unsigned i = 0; i < 400; ++i)
        room.fleet->receive(
            copying.at, copying.addressed(Packet(formats::kind_read, i, 512, ++copying.sequence)).request());
    ASSERT_TRUE(booting.read(0, 512).complete());
    const auto& order = room.network.order;
    ASSERT_EQ(order.size(), 401u) << "nothing is lost";
    const auto place = std::ranges::find(order, server::to_text(booting.at)) - order.begin();
    EXPECT_LE(place, 100) << "of the 400 that came before";
}

TEST(A_fleet_under_load, Gives_a_workstation_no_more_than_its_limit_and_lets_nobody_else_wait)
{
    Room room("{ image = \"golden\" }", 0,
              "[workstations.w]\nhardware = \"02:00:00:00:00:00\"\ngroup = \"g\"\nlimit_mb_s = 2\n");
    Pc limited(room, 0), other(room, 1);
    limited.boot(1), other.boot(1);
    constexpr unsigned bytes = 16384, at_once = 4;
    std::vector<Packet> in_flight;
    unsigned done = 0, longest_ms = 0;
    std::vector<std::uint64_t> asked_ms;
    for (const std::uint64_t end_ms = room.now_ms + 2000; room.now_ms < end_ms; ++room.now_ms) {
        while (in_flight.size() < at_once) {
            in_flight.push_back(limited.addressed(
                Packet(formats::kind_read, done % 8 * bytes / 512, bytes, ++limited.sequence)));
            asked_ms.push_back(room.now_ms);
            room.fleet->receive(limited.at, in_flight.back().request());
        }
        room.pool.run_all();
        for (const Bytes& answer : room.network.take(limited.at))
            for (Packet& packet : in_flight)
                packet.receive(answer);
        for (std::size_t i = 0; i < in_flight.size();) {
            if (!in_flight[i].complete()) {
                ++i;
                continue;
            }
            ++done;
            longest_ms = std::max(longest_ms, static_cast<unsigned>(room.now_ms - asked_ms[i]));
            in_flight.erase(in_flight.begin() + static_cast<std::ptrdiff_t>(i));
            asked_ms.erase(asked_ms.begin() + static_cast<std::ptrdiff_t>(i));
        }
        ASSERT_TRUE(other.read(0, bytes).complete()) << "at once, at any time";
    }
    EXPECT_GT(done * bytes, 3'800'000u);
    EXPECT_LT(done * bytes, 4'200'000u) << "2 MB/s for two seconds";
    EXPECT_LT(longest_ms, 110u) << "it would ask again";
}

TEST(A_fleet_under_load, Answers_at_once_where_nothing_has_to_wait)
{
    Room room("{ image = \"golden\" }, { image = \"slow\" }");
    Pc pc(room, 0);
    pc.boot(1);
    ASSERT_TRUE(pc.read(0, 512).complete()) << "the stretch of data is known from here on";
    ASSERT_TRUE(pc.write(100, 8192, 3));
    ASSERT_TRUE(pc.read(100, 8192).complete());
    NetworkSink own(room.network);
    WorkPool::set_sink(&own);
    const auto ask = [&](unsigned sector, unsigned lun) {
        Packet packet = pc.addressed(Packet(formats::kind_read, sector, 8192, ++pc.sequence), lun);
        room.fleet->receive(pc.at, packet.request());
        pc.collect(packet);
        return packet;
    };
    const Packet of_overlay = ask(100, 0), slow = ask(0, 1);
    ASSERT_TRUE(of_overlay.complete());
    EXPECT_TRUE(std::equal(of_overlay.data.begin(), of_overlay.data.end(), pc.content.begin() + 100 * 512));
    EXPECT_FALSE(slow.complete()) << "not in the thread that receives";
    // What comes behind something that waits, waits.
    Packet write = pc.addressed(make_write(100, 512, ++pc.sequence, 4));
    for (const Bytes& fragment : write.send())
        room.fleet->receive(pc.at, fragment);
    EXPECT_FALSE(ask(100, 0).complete());
    WorkPool::set_sink(nullptr);
    room.pool.run_all();
    pc.collect(write);
    EXPECT_TRUE(write.complete());
}

TEST(A_fleet_under_load, Asks_its_storage_for_what_waits_all_at_once_and_in_order)
{
    Room room("{ image = \"slow\" }");
    Pc pc(room, 0);
    pc.boot(1);
    read_together_most = 0;
    std::vector<Packet> reads;
    for (unsigned i = 0; i < 6; ++i) {
        reads.push_back(pc.addressed(Packet(formats::kind_read, i * 40, 8192, ++pc.sequence)));
        room.fleet->receive(pc.at, reads.back().request());
    }
    // The same turn writes where it has read, and reads again.
    Packet write = pc.addressed(make_write(40, 8192, ++pc.sequence, 9));
    for (const Bytes& fragment : write.send())
        room.fleet->receive(pc.at, fragment);
    Packet again = pc.addressed(Packet(formats::kind_read, 40, 8192, ++pc.sequence));
    room.fleet->receive(pc.at, again.request());
    room.pool.run_all();
    for (const Bytes& answer : room.network.take(pc.at)) {
        for (Packet& read : reads)
            read.receive(answer);
        write.receive(answer);
        again.receive(answer);
    }
    EXPECT_EQ(read_together_most, 7u);
    for (unsigned i = 0; i < 6; ++i) {
        ASSERT_TRUE(reads[i].complete());
        EXPECT_TRUE(std::equal(reads[i].data.begin(), reads[i].data.end(), pc.content.begin() + i * 40 * 512))
            << i;
    }
    ASSERT_TRUE(write.complete() && again.complete());
    EXPECT_EQ(again.data, write.data) << "not what was read ahead of the write";
}

TEST(A_fleet_under_load, Suffers_from_a_store_that_fails_or_is_full_only_where_that_is_used)
{
    Room room("{ image = \"golden\" }, { image = \"slow\", mode = \"exclusive\" }");
    Pc pc(room, 0);
    pc.boot(1);
    for (const int error : {EIO, ENOSPC}) {
        slow_error = error;
        EXPECT_FALSE(pc.write(0, 512, 1, 1));
        EXPECT_TRUE(pc.write(0, 512, 2));
        EXPECT_TRUE(pc.read(0, 512, 1).complete());
        const Json disks = room.command("show", {{"name", "pc-020000000000"}})["disks"];
        EXPECT_EQ(disks[1]["last_error"], "cannot write: " + std::generic_category().message(error));
        EXPECT_EQ(disks[0]["store_errors"], 0);
    }
    slow_error = 0;
    EXPECT_TRUE(pc.write(0, 512, 3, 1)) << "room has been made";
}

}  // namespace
