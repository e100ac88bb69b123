// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <numeric>

#include "server/completed_writes.h"
#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

struct Writes : ServerFixture, testing::Test {
    // The kinds of the answers to one packet, "done" or "ack" with the fragments named missing.
    std::string answers(const Bytes& packet)
    {
        std::string text;
        for (const Bytes& answer : exchange(packet)) {
            EXPECT_EQ(answer.size(), 26u);
            text += text.empty() ? "" : " ";
            if (answer[5] == 0x5F)
                text += "done";
            else if (answer[5] == 0x5B)
                text += "ack";
            const unsigned missing = ~static_cast<unsigned>(answer[16] << 8 | answer[17]) & 0xFFFF;
            for (unsigned i = 0; answer[5] == 0x5B && i < 16; ++i)
                if ((missing >> i & 1) != 0)
                    text += " " + std::to_string(i + 1);
        }
        return text;
    }
    // All fragments in order, until the write is done; the last answer.
    std::string write(Packet& packet)
    {
        std::string last;
        for (unsigned number = 1; number <= packet.fragments() && last != "done"; ++number)
            last = answers(packet.fragment(number));
        return last;
    }
};

TEST_F(Writes, Fragments_in_every_order_complete_a_write_once)
{
    std::uint16_t seq = 0;
    for (const unsigned length : {512u, 1536u, 3072u, 5120u, 6144u}) {
        std::vector<unsigned> order(formats::fragment_count(length));
        std::iota(order.begin(), order.end(), 1u);
        do {
            ++seq;
            Packet packet = make_write(11, length, seq, seq);
            std::string last;
            for (const unsigned number : order) {
                ASSERT_NE(last, "done");
                last = answers(packet.fragment(number));
            }
            ASSERT_EQ(last, "done");
            ASSERT_EQ(stored(11, length), packet.data);
        } while (std::next_permutation(order.begin(), order.end()));
    }
    EXPECT_EQ(store.writes, seq);
    EXPECT_EQ(counters().writes_completed, seq);
}

TEST_F(Writes, A_gap_is_reported_after_the_last_fragment_of_each_send)
{
    Packet packet = make_write(0, 16384, 1, 1);
    for (const unsigned number : {1u, 2u, 4u, 5u, 6u, 8u, 9u, 10u, 11u})
        EXPECT_EQ(answers(packet.fragment(number)), "") << number;
    EXPECT_EQ(answers(packet.fragment(12)), "ack 3 7");
    packet.outstanding = 1 << 2 | 1 << 6;
    EXPECT_EQ(answers(packet.fragment(7)), "ack 3");
    packet.outstanding = 1 << 2;
    EXPECT_EQ(answers(packet.fragment(3)), "done");
    EXPECT_EQ(stored(0, 16384), packet.data);
    EXPECT_EQ(counters().acknowledgements, 2u);
}

TEST_F(Writes, A_late_copy_never_undoes_a_newer_write)
{
    for (const unsigned length : {512u, 3072u}) {
        Packet old = make_write(5, length, 1, 1);
        Packet newer = make_write(5, length, 2, 2);
        EXPECT_EQ(write(old), "done");
        EXPECT_EQ(write(newer), "done");
        EXPECT_EQ(write(old), "done") << "its sender may have lost the answer";
        EXPECT_EQ(stored(5, length), newer.data);
        EXPECT_EQ(write(newer), "done");
    }
    EXPECT_EQ(store.writes, 4u);
    EXPECT_EQ(counters().repeated_writes, 4u);
}

TEST_F(Writes, A_resend_after_a_lost_answer_is_done_when_all_of_it_has_come)
{
    Packet packet = make_write(5, 6144, 1, 1);
    write(packet);
    EXPECT_EQ(answers(packet.fragment(2)), "");
    EXPECT_EQ(answers(packet.request(true)), "ack 1 3 4 5");
    EXPECT_EQ(answers(packet.fragment(5)), "ack 1 3 4");
    EXPECT_EQ(answers(packet.fragment(1)), "");
    EXPECT_EQ(answers(packet.fragment(3)), "");
    EXPECT_EQ(answers(packet.fragment(4)), "done");
    EXPECT_EQ(store.writes, 1u);
}

TEST_F(Writes, Equal_packets_for_other_sectors_or_of_another_workstation_are_new_writes)
{
    Packet first = make_write(5, 1024, 1, 1);
    write(first);
    Packet elsewhere = make_write(50, 1024, 1, 1);
    EXPECT_EQ(write(elsewhere), "done");
    EXPECT_EQ(stored(50, 1024), elsewhere.data);
    Packet between = make_write(5, 1024, 2, 2);
    write(between);
    for (const server::Peer& other : {peer(7, 4002), peer(8, 4001)}) {
        workstation = other;
        EXPECT_EQ(write(first), "done");
        EXPECT_EQ(stored(5, 1024), first.data);
        EXPECT_EQ(write(between), "done");
    }
    EXPECT_EQ(store.writes, 7u);
}

TEST_F(Writes, A_restarted_workstation_that_counts_from_1_again_is_written_through)
{
    Packet before = make_write(5, 3072, 1, 1);
    write(before);
    Packet after = make_write(5, 3072, 1, 2);
    EXPECT_EQ(write(after), "done") << "another content under the same key";
    EXPECT_EQ(stored(5, 3072), after.data);

    // Content that begins like the old one: what was taken for a repeat is asked for again.
    Packet similar = after;
    fill(std::span(similar.data).last(100), 3);
    EXPECT_EQ(write(similar), "ack 1 2");
    EXPECT_EQ(answers(similar.fragment(1)), "");
    EXPECT_EQ(answers(similar.fragment(2)), "done");
    EXPECT_EQ(stored(5, 3072), similar.data);

    // Equal content, after longer than a late packet can take.
    Packet undone = make_write(5, 3072, 2, 4);
    write(undone);
    protocol.set_time_ms(server::history_ms + 1);
    EXPECT_EQ(write(similar), "done");
    EXPECT_EQ(stored(5, 3072), similar.data);
}

TEST_F(Writes, Fragments_of_two_starts_are_never_joined)
{
    Packet before = make_write(5, 3072, 1, 1);
    Packet after = make_write(5, 3072, 1, 2);
    answers(before.fragment(1));
    answers(before.fragment(3));
    answers(after.fragment(1));
    EXPECT_EQ(answers(after.fragment(2)), "") << "fragment 3 is still the old one's";
    EXPECT_EQ(answers(after.fragment(3)), "done");
    EXPECT_EQ(stored(5, 3072), after.data);

    Packet given_up = make_write(5, 3072, 2, 3);
    answers(given_up.fragment(1));
    protocol.set_time_ms(server::history_ms + 1);
    EXPECT_EQ(answers(given_up.request(true)), "ack 1 2 3");
    Packet later = make_write(5, 3072, 2, 4);
    answers(later.fragment(2));
    EXPECT_EQ(answers(later.fragment(3)), "ack 1");
}

TEST_F(Writes, More_unfinished_writes_than_there_is_room_for_cost_only_resends)
{
    std::vector<Packet> packets;
    for (std::uint16_t seq = 1; seq <= 300; ++seq) {
        packets.push_back(make_write(seq * 3u, 1536, seq, seq));
        answers(packets.back().fragment(1));
    }
    EXPECT_EQ(answers(packets.front().fragment(2)), "ack 1") << "the oldest lost its place";
    EXPECT_EQ(answers(packets.back().fragment(2)), "done");
    for (Packet& packet : packets)
        EXPECT_EQ(write(packet), "done");
    for (const Packet& packet : packets)
        EXPECT_EQ(stored(packet.header.Byte_Offset.get() / 512 - 1, 1536), packet.data);
}

TEST_F(Writes, A_failed_store_leaves_the_write_undone_until_it_is_sent_again)
{
    for (const unsigned length : {512u, 1536u}) {
        Packet packet = make_write(5, length, 1, length);
        store.fails = true;
        EXPECT_EQ(write(packet), "");
        store.fails = false;
        EXPECT_EQ(answers(packet.request(true)), length == 512 ? "ack 1" : "ack 1 2");
        EXPECT_EQ(write(packet), "done");
        EXPECT_EQ(stored(5, length), packet.data);
    }
    EXPECT_EQ(counters().store_errors, 2u);
}

}  // namespace
