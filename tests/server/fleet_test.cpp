// SPDX-License-Identifier: MIT
// A fleet without sockets, in virtual time: a hundred workstations on one image, and what may go wrong with
// one of them while the others work.
#include <gtest/gtest.h>

#include <random>

#include "server/overlay_file.h"
#include "tests/server/fleet_room.h"

using namespace server_test;

namespace {

Bytes file_content(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

TEST(A_fleet, Of_a_hundred_each_reads_its_own_writes_over_one_image_also_after_a_restart)
{
    Room room("{ image = \"golden\", at_boot = \"keep\" }");
    std::vector<Pc> pcs;
    for (unsigned number = 0; number < 100; ++number)
        pcs.emplace_back(room, number);
    for (Pc& pc : pcs)
        ASSERT_EQ(pc.boot(1).Kind, formats::boot_kind_answer);
    std::mt19937 random(7);
    for (unsigned round = 0; round < 300; ++round) {
        Pc& pc = pcs[random() % pcs.size()];
        const unsigned sectors = random() % 32 + 1;
        ASSERT_TRUE(pc.write(random() % (Room::image_bytes / 512 - 32), sectors * 512, random()));
        room.now_ms += random() % 20;
        if (round % 100 == 50)
            room.open();
    }
    for (Pc& pc : pcs)
        ASSERT_NO_FATAL_FAILURE(pc.expect_own_content());
    Bytes golden(Room::image_bytes);
    fill(golden, 5);
    EXPECT_EQ(file_content(room.folder / "golden"), golden);
    EXPECT_EQ(room.command("list")["workstations"].size(), 100u);
    for (const auto& entry : std::filesystem::directory_iterator(room.folder / "state/overlays"))
        EXPECT_TRUE(server::check_overlay_file(entry.path()).faults.empty()) << entry.path();
}

TEST(A_fleet, Hears_a_workstation_only_where_and_as_it_booted_last)
{
    Room room("{ image = \"golden\" }");
    Pc pc(room, 0), other(room, 1);
    const auto first = pc.boot(7);
    ASSERT_EQ(pc.boot(7).Param.Disks[0].Disk_Parm[2], first.Param.Disks[0].Disk_Parm[2])
        << "it only asked again";
    ASSERT_TRUE(pc.write(10, 512, 1));

    other.param = pc.param;
    EXPECT_FALSE(other.write(10, 512, 2));
    EXPECT_FALSE(other.read(10, 512).complete());
    EXPECT_EQ(room.dropped("other_address"), 2u);

    const formats::Boot_Param earlier = pc.param;
    pc.boot(8);
    fill(pc.content, 5);
    ASSERT_NO_FATAL_FAILURE(pc.expect_own_content());
    std::swap(pc.param, other.param);
    pc.param = earlier;
    EXPECT_FALSE(pc.write(20, 512, 3)) << "a late write of an earlier boot";
    EXPECT_EQ(room.dropped("unknown_disk"), 1u);

    Pc stranger(room, 2);
    stranger.at.Ip[1] = 9;
    stranger.param = pc.param;
    EXPECT_FALSE(stranger.read(0, 512).complete());
    EXPECT_EQ(room.dropped("strangers"), 1u);
}

TEST(A_fleet, Refuses_the_second_writer_of_an_exclusive_disk_until_the_first_shuts_down)
{
    Room room("{ image = \"golden\", mode = \"exclusive\" }");
    Pc first(room, 0), second(room, 1);
    first.boot(1), second.boot(1);
    ASSERT_TRUE(first.write(0, 512, 1));
    Packet refused = second.addressed(make_write(0, 512, ++second.sequence, 2));
    for (const Bytes& bytes : refused.send())
        room.fleet->receive(second.at, bytes);
    room.pool.run_all();
    const auto told = room.network.take(second.at);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0][4], formats::sub_retry_limit) << "it is told to give up soon";
    EXPECT_EQ(room.command("show", {{"name", "pc-020000000001"}})["disks"][0]["writer"], "pc-020000000000");
    first.shut_down();
    EXPECT_TRUE(second.write(0, 512, 2));
}

TEST(A_fleet, Suffers_from_a_store_that_hangs_only_where_that_is_used)
{
    Room room("{ image = \"golden\" }, { image = \"slow\", mode = \"readonly\" }", 2);
    // A test of threads: answers come when they come.
    const auto until = [&](auto condition) {
        for (int i = 0; i < 5000 && !condition(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            room.pool.grow_if_stuck();
        }
        return condition();
    };
    std::vector<Pc> pcs;
    for (unsigned number = 0; number < 6; ++number)
        pcs.emplace_back(room, number);
    for (Pc& pc : pcs) {
        const auto booted =
            room.fleet->command({{"command", "add"},
                                 {"name", "n" + std::to_string(pc.number)},
                                 {"group", "g"},
                                 {"hardware", "02:00:00:00:00:0" + std::to_string(pc.number)}});
        ASSERT_FALSE(booted.contains("error")) << booted;
        const Json block = room.fleet->command({{"command", "boot-block"},
                                                {"name", "n" + std::to_string(pc.number)},
                                                {"address", server::ip_text(pc.at.Ip)}});
        ASSERT_FALSE(block.contains("error")) << block;
        const std::string hex = block["block"];
        for (std::size_t i = 0; i < sizeof pc.param; ++i)
            reinterpret_cast<std::uint8_t*>(&pc.param)[i] =
                static_cast<std::uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    }
    gate.set(true);
    std::vector<Packet> hanging, working;
    for (Pc& pc : pcs) {
        hanging.push_back(pc.addressed(Packet(formats::kind_read, 0, 512, ++pc.sequence), 1));
        room.fleet->receive(pc.at, hanging.back().request());
    }
    for (Pc& pc : pcs) {
        Packet read = pc.addressed(Packet(formats::kind_read, 0, 512, ++pc.sequence));
        room.fleet->receive(pc.at, read.request());
        EXPECT_TRUE(until([&] {
            pc.collect(read);
            return read.complete();
        })) << "the other disk of pc "
            << pc.number;
    }
    EXPECT_GT(room.pool.threads(), 2u);
    gate.set(false);
    for (std::size_t i = 0; i < pcs.size(); ++i)
        EXPECT_TRUE(until([&] {
            pcs[i].collect(hanging[i]);
            return hanging[i].complete();
        }));
}

TEST(A_fleet, Flushes_as_each_disk_is_said_to_be_synced)
{
    const struct {
        const char* sync;
        unsigned after_writes, after_seconds, after_shutdown;
    } cases[] = {{"none", 0, 0, 1}, {"interval", 0, 1, 2}, {"always", 3, 3, 4}};
    for (const auto& [sync, after_writes, after_seconds, after_shutdown] : cases) {
        SCOPED_TRACE(sync);
        Room room(std::string("{ image = \"golden\", mode = \"exclusive\", sync = \"") + sync + "\" }");
        Pc pc(room, 0);
        pc.boot(1);
        room.fleet->tick();
        room.pool.run_all();
        flushes = 0;
        for (std::uint64_t sector = 0; sector < 3; ++sector)
            ASSERT_TRUE(pc.write(sector, 512, sector));
        EXPECT_EQ(flushes, after_writes);
        for (unsigned second = 0; second < 12; ++second, room.now_ms += 1000) {
            room.fleet->tick();
            room.pool.run_all();
        }
        EXPECT_EQ(flushes, after_seconds) << "and none when nothing was written";
        ASSERT_TRUE(pc.write(5, 512, 5));
        flushes = after_seconds;
        pc.shut_down();
        EXPECT_EQ(flushes, after_shutdown);
    }
}

TEST(A_fleet, Lets_an_unknown_workstation_in_when_the_administrator_says_so)
{
    Room room("{ image = \"golden\" }", 0, "");
    std::string waiting = room.text;
    waiting.replace(waiting.find("policy = \"group\""), 16, "policy = \"wait\"");
    room.text = waiting;
    room.open();
    Pc pc(room, 3);
    const auto refused = pc.boot(1);
    EXPECT_EQ(refused.Kind, formats::boot_kind_refusal);
    EXPECT_STREQ(refused.Text, "pc-020000000003 waits for the administrator's approval");
    EXPECT_EQ(room.command("list")["workstations"][0]["state"], "waits for approval");
    room.open();
    EXPECT_FALSE(room.command("add", {{"name", "desk"}, {"hardware", "02:00:00:00:00:03"}, {"group", "g"}})
                     .contains("error"));
    EXPECT_EQ(pc.boot(2).Kind, formats::boot_kind_answer);
    ASSERT_NO_FATAL_FAILURE(pc.expect_own_content());
    EXPECT_EQ(room.command("show", {{"name", "02:00:00:00:00:03"}})["name"], "desk");
    EXPECT_TRUE(room.command("remove", {{"name", "desk"}}).contains("error")) << "it runs";
    pc.shut_down();
    EXPECT_FALSE(room.command("remove", {{"name", "desk"}}).contains("error"));
    EXPECT_TRUE(std::filesystem::is_empty(room.folder / "state/overlays"));
}

TEST(A_fleet, Commands_that_make_no_sense_are_refused_with_the_reason)
{
    Room room("{ image = \"golden\" }");
    Pc pc(room, 0);
    pc.boot(1);
    const std::pair<Json, const char*> cases[] = {
        {Json::array(), "an object"},
        {{{"command", 7}}, "'command' is missing"},
        {{{"command", "lst"}}, "no command 'lst'"},
        {{{"command", "show"}}, "'name' is missing"},
        {{{"command", "show"}, {"name", "pc9"}}, "no workstation 'pc9'"},
        {{{"command", "add"}, {"name", "../x"}, {"group", "g"}, {"hardware", "02:00:00:00:00:09"}},
         "is no name"},
        {{{"command", "add"}, {"name", "x"}, {"group", "h"}, {"hardware", "02:00:00:00:00:09"}},
         "no group 'h'"},
        {{{"command", "add"}, {"name", "x"}, {"group", "g"}, {"hardware", "02:00:00:00:00:00"}},
         "is pc-020000000000"},
        {{{"command", "commit"}, {"name", "pc-020000000000"}, {"lun", 3}}, "has no overlay"},
        {{{"command", "commit"}, {"name", "pc-020000000000"}, {"lun", -1}}, "a number up to 3"},
        {{{"command", "commit"}, {"name", "pc-020000000000"}, {"lun", "0"}}, "a number up to 3"},
        {{{"command", "rollback"}, {"name", "golden"}}, "no version before"},
        {{{"command", "rollback"}, {"name", "golden@9"}}, "no golden@9"},
        {{{"command", "remove"}, {"name", "golden@1"}}, "current"},
        {{{"command", "reload"}}, "config"},
    };
    for (const auto& [command, reason] : cases) {
        const Json answer = room.fleet->command(command);
        ASSERT_TRUE(answer.contains("error")) << command;
        EXPECT_NE(answer["error"].get<std::string>().find(reason), std::string::npos) << answer;
    }
}

}  // namespace
