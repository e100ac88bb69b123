// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

struct Notices : ServerFixture, testing::Test {
    Bytes poll_reply(const Bytes& poll)
    {
        Bytes reply(226, 0x33);
        std::copy_n(poll.begin(), 4, reply.begin());
        reply[0] = static_cast<std::uint8_t>(poll[0] + 1);
        reply[4] = poll[6];
        reply[5] = poll[7];
        return reply;
    }
};

TEST_F(Notices, A_status_poll_names_the_poller_and_takes_only_its_own_reply)
{
    const server::Peer self = peer(1, 0x1F40);
    protocol.send_poll(workstation, self);
    ASSERT_EQ(sink.sent.size(), 1u);
    EXPECT_EQ(std::memcmp(&sink.sent[0].to, &workstation, sizeof workstation), 0);
    const Bytes poll = sink.take()[0];
    ASSERT_EQ(poll.size(), 26u);
    EXPECT_EQ(Bytes(poll.begin(), poll.begin() + 2), Bytes({0x01, 0x38}));
    const Bytes poller(poll.begin() + 8, poll.begin() + 22);
    EXPECT_EQ(poller, Bytes({10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0x1F, 0x40, 0, 0}));

    Bytes wrong = poll_reply(poll);
    wrong[4] ^= 1;
    exchange(wrong);
    Bytes cut = poll_reply(poll);
    cut.pop_back();
    exchange(cut);
    EXPECT_TRUE(protocol.last_poll_reply().empty());
    exchange(poll_reply(poll));
    EXPECT_TRUE(std::ranges::equal(protocol.last_poll_reply(), poll_reply(poll)));
    Bytes late = poll_reply(poll);
    late[100] ^= 1;
    exchange(late);
    EXPECT_TRUE(std::ranges::equal(protocol.last_poll_reply(), poll_reply(poll)));
    EXPECT_EQ(protocol.dropped().unknown_kind, 2u);
}

TEST_F(Notices, Retry_limit_reaches_unfinished_and_unserved_packets_and_no_others)
{
    Packet unfinished = make_write(0, 3072, 1, 1);
    exchange(unfinished.fragment(2));
    Packet finished = make_write(0, 512, 2, 2);
    exchange(finished.fragment(1));
    store.fails = true;
    Packet unserved(formats::kind_read, 0, 512, 3);
    for (int tries = 0; tries < 100; ++tries)
        exchange(unserved.request());
    protocol.send_retry_limit(0);
    const auto sent = sink.take();
    ASSERT_EQ(sent.size(), 2u);
    for (const Bytes& notice : sent) {
        ASSERT_EQ(notice.size(), 26u);
        EXPECT_EQ(notice[4], 0xAA);
        EXPECT_EQ(notice[5], 0x55);
    }
    const auto matches = [](const Packet& packet, const Bytes& notice) {
        const auto* own = reinterpret_cast<const std::uint8_t*>(&packet.header);
        return std::memcmp(own, notice.data(), 4) == 0 && std::memcmp(own + 6, notice.data() + 6, 10) == 0;
    };
    EXPECT_TRUE(matches(unfinished, sent[0]));
    EXPECT_TRUE(matches(unserved, sent[1]));
}

}  // namespace
