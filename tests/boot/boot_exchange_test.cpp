// SPDX-License-Identifier: MIT
// The boot request against the server's own answers, and the records that stay in memory.
#include <gtest/gtest.h>

#include "boot/boot_exchange.h"
#include "server/boot_service.h"
#include "tests/server/workstation_model.h"

using namespace boot;
using namespace server_test;

namespace {

struct Asking : testing::Test {
    NetworkPlace place{
        {10, 0, 2, 15}, {255, 255, 255, 0}, {10, 0, 2, 1}, {2, 0, 0, 0, 0, 9}, {10, 0, 2, 2}, 700, false};
    formats::BootRequest request = make_boot_request(place, 0xC0C1C2C3);
    formats::BootAnswer answer{};
    server::BootDecision decision{formats::Boot_Param{}, "disks"};

    Asking()
    {
        decision.block->Lun_Nums = 1;
        decision.block->Disks[0].Disk_Secs.set(2048);
    }
    Bytes server_answer()
    {
        RecordingSink sink;
        server::BootService service(sink, [&](const formats::BootRequest&) { return decision; });
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&request);
        EXPECT_TRUE(service.receive(peer(15, 1), {bytes, sizeof request}));
        return sink.take().at(0);
    }
    Verdict judge(const Bytes& packet)
    {
        return judge_answer(packet.data(), static_cast<unsigned>(packet.size()), request, answer);
    }
};

TEST_F(Asking, Servers_answers_are_judged_by_what_they_bring)
{
    EXPECT_EQ(judge(server_answer()), Verdict::accepted);
    EXPECT_STREQ(answer.Text, "disks");
    decision.block->Disks[0].Disk_Secs.set(0);
    EXPECT_EQ(judge(server_answer()), Verdict::no_disks);
    decision.block->Disks[0].Disk_Secs.set(0xFFFFFFFF);
    EXPECT_EQ(judge(server_answer()), Verdict::bad_disk)
        << "its last sector has no number on the wire's side";
    decision.block->Lun_Nums = 5;
    EXPECT_EQ(judge(server_answer()), Verdict::no_disks);
    decision = {{}, "go\x1b[2J away"};
    EXPECT_EQ(judge(server_answer()), Verdict::refused);
    EXPECT_STREQ(answer.Text, "go?[2J away");
}

TEST_F(Asking, What_answers_another_request_is_nothing)
{
    const Bytes good = server_answer();
    for (const unsigned offset : {0u, 4u, 5u, 7u, 11u, 17u}) {
        Bytes wrong = good;
        wrong[offset] ^= 8;
        EXPECT_EQ(judge(wrong), Verdict::foreign) << offset;
    }
    EXPECT_EQ(judge(Bytes(good.begin(), good.end() - 1)), Verdict::foreign);
}

TEST_F(Asking, Servers_that_do_not_know_their_address_are_where_the_answer_came_from)
{
    formats::Boot_Param param{};
    param.Lun_Nums = 3;
    param.Main_Server[0] = {{127, 0, 0, 1}, {}, {}, {}};
    param.Main_Server[0].Port.set(9);
    param.Main_Server[1] = {{10, 9, 8, 7}, {}, {}, {}};
    complete_servers(param, place);
    EXPECT_EQ(param.Main_Server[0].Ip[0], 10);
    EXPECT_EQ(param.Main_Server[0].Port.get(), 9);
    EXPECT_EQ(param.Main_Server[1].Ip[1], 9);
    EXPECT_EQ(param.Main_Server[2].Port.get(), 700);
}

TEST_F(Asking, Records_are_as_drivers_look_for_them)
{
    decision.block->Rack_Level.set(0x0705);
    ASSERT_EQ(judge(server_answer()), Verdict::accepted);
    formats::BootRecord record;
    make_boot_record(record, answer);
    EXPECT_EQ(std::memcmp(&record, "KTWBSTRAP", 9), 0);
    EXPECT_LE(record.Bound.get(), 256);
    EXPECT_EQ(record.Kind.get(), 22);
    EXPECT_EQ(record.Rack_Level.get(), 0x0705);
    formats::NetworkRecord network;
    make_network_record(network, place, 50000);
    unsigned sum = 0;
    for (unsigned i = 0; i < sizeof network; ++i)
        sum += reinterpret_cast<const std::uint8_t*>(&network)[i];
    EXPECT_EQ(sum % 256, 0u);
    EXPECT_EQ(network.Own_Port.get(), 50000);
}

}  // namespace
