// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cerrno>
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
    constexpr std::uint64_t a_time_out_ms = 1110;
    std::uint64_t now_ms = 1;
    for (const unsigned length : {512u, 1536u}) {
        Packet packet = make_write(5, length, 1, length);
        store.fails = true;
        EXPECT_EQ(write(packet), "");
        EXPECT_EQ(answers(packet.request(true)), "") << "its data came, and could not be kept";
        protocol.set_time_ms(now_ms += a_time_out_ms);
        EXPECT_EQ(write(packet), "");
        store.fails = false;
        EXPECT_EQ(answers(packet.request(true)), "");
        protocol.set_time_ms(now_ms += a_time_out_ms);
        EXPECT_EQ(write(packet), "done");
        EXPECT_EQ(answers(packet.request(true)), "done");
        EXPECT_EQ(stored(5, length), packet.data);
    }
    EXPECT_EQ(counters().store_errors, 4u);
}

// Each answer to a late copy would make the workstation send again what is missing, without end.
TEST_F(Writes, Late_copies_of_one_that_could_not_be_stored_are_not_answered)
{
    Packet packet = make_write(5, 1536 * 3, 1, 7);
    store.fails = true;
    EXPECT_EQ(write(packet), "");
    const unsigned last = packet.header.Frag_Cnt.get();
    for (unsigned copy = 0; copy < 3; ++copy)
        EXPECT_EQ(answers(packet.fragment(last)), "");
    EXPECT_EQ(write(packet), "");
    EXPECT_EQ(counters().store_errors, 1u);
    Packet other = make_write(5, 1536, 2, 8);
    EXPECT_EQ(answers(other.fragment(2)), "ack 1") << "another write is heard at once";
}

TEST_F(Writes, However_many_writes_fail_none_is_said_to_have_never_come)
{
    store.fails = true;
    std::vector<Packet> packets;
    for (unsigned i = 0; i < 128; ++i) {
        packets.push_back(make_write(i, 512, static_cast<std::uint16_t>(i / 8), i));
        packets.back().header.Worker_Byte = static_cast<std::uint8_t>(i % 8);
        EXPECT_EQ(write(packets.back()), "");
    }
    for (Packet& packet : packets)
        EXPECT_EQ(answers(packet.request(true)), "");
    protocol.set_time_ms(server::history_ms + 1);
    EXPECT_EQ(answers(packets[0].request(true)), "ack 1") << "of another start, maybe";
}

TEST_F(Writes, What_failed_is_told_with_the_place_the_reason_and_the_workstation)
{
    std::vector<std::string> told;
    protocol.set_failure_listener([&](const server::StoreFailure& failure) {
        told.push_back(std::to_string(failure.disk) + " " +
                       std::to_string(static_cast<int>(failure.operation)) + " " +
                       std::to_string(failure.error) + " " +
                       std::to_string(failure.workstation ? failure.workstation->Port.get() : 0));
    });
    store.fails = true;
    errno = 0;
    Packet packet = make_write(5, 512, 1, 1);
    write(packet);
    exchange(Packet(formats::kind_read, 0, 512, 2).request());
    store.fails = false;
    exchange(Packet(formats::kind_read, 0, 512, 3).request());
    EXPECT_EQ(told, (std::vector<std::string>{"0 1 28 4001", "0 0 28 4001"}));
}

}  // namespace
