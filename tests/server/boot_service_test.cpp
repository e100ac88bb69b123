// SPDX-License-Identifier: MIT
// Boot requests of PCs, good and hostile.
#include <gtest/gtest.h>

#include "server/boot_service.h"
#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

struct BootRequests : testing::Test {
    RecordingSink sink;
    server::BootDecision decision;
    std::vector<formats::BootRequest> asked;
    server::BootService service{sink, [this](const formats::BootRequest& request) {
                                    asked.push_back(request);
                                    return decision;
                                }};

    static Bytes request()
    {
        Bytes packet = {'Q',  'R', 'N', 'B', 1, 1, 0, 64, 0xC0, 0xC1, 0xC2,
                        0xC3, 2,   0,   0,   0, 0, 9, 10, 0,    2,    15};
        packet.resize(64);
        return packet;
    }
    bool receive(const Bytes& packet) { return service.receive(peer(15, 700), packet); }
    Bytes only_answer()
    {
        const auto packets = sink.take();
        EXPECT_EQ(packets.size(), 1u);
        return packets.empty() ? Bytes(464) : packets[0];
    }
};

TEST_F(BootRequests, Answer_brings_cookie_hardware_address_level_text_and_block)
{
    formats::Boot_Param block{};
    block.Lun_Nums = 3;
    block.Rack_Level.set(0x0705);
    decision = {block, std::string(100, 'x')};
    ASSERT_TRUE(receive(request()));
    const Bytes answer = only_answer();
    const Bytes head = {'Q', 'R', 'N', 'B', 1, 2, 0x01, 0xD0, 0xC0, 0xC1, 0xC2, 0xC3, 2, 0, 0, 0, 0, 9, 7, 5};
    ASSERT_EQ(answer.size(), 464u);
    EXPECT_EQ(Bytes(answer.begin(), answer.begin() + 20), head);
    EXPECT_EQ(answer[24 + 78], 'x');
    EXPECT_EQ(answer[24 + 79], 0) << "the text always ends";
    EXPECT_EQ(answer[104 + 4], 3);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].Ip[3], 15);
}

TEST_F(BootRequests, Refusal_says_why_and_brings_no_block)
{
    decision.text = "no disks";
    ASSERT_TRUE(receive(request()));
    Bytes answer = only_answer();
    EXPECT_EQ(answer[5], 3);
    EXPECT_STREQ(reinterpret_cast<const char*>(&answer[24]), "no disks");

    Bytes newer = request();
    newer[4] = 2;
    ASSERT_TRUE(receive(newer));
    answer = only_answer();
    EXPECT_EQ(answer[5], 3);
    EXPECT_NE(answer[24], 0);
    EXPECT_EQ(asked.size(), 1u) << "a version that is not understood is not decided about";
}

TEST_F(BootRequests, Longer_requests_of_the_same_version_are_understood)
{
    Bytes longer = request();
    longer.resize(100);
    longer[7] = 100;
    ASSERT_TRUE(receive(longer));
    EXPECT_EQ(only_answer().size(), 464u);
}

TEST_F(BootRequests, Broken_boot_packets_are_swallowed_and_others_are_left)
{
    Bytes answer_kind = request(), wrong_length = request(), cut = request();
    answer_kind[5] = 2;  // else two servers could answer each other for ever
    wrong_length[7] = 63;
    cut.resize(63);
    for (const Bytes& packet : {answer_kind, wrong_length, cut})
        EXPECT_TRUE(receive(packet));
    EXPECT_FALSE(receive({'Q', 'R', 0, 1}));
    EXPECT_FALSE(receive({'Q', 'R', 'N'}));
    EXPECT_FALSE(receive({}));
    EXPECT_TRUE(sink.take().empty());
}

}  // namespace
