// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <numeric>

#include "tests/server/workstation_model.h"

using namespace server_test;
using formats::kind_read, formats::kind_sync_read;

namespace {

struct Reads : ServerFixture, testing::Test {
    Reads()
    {
        fill(store.bytes(), 1);
        fill(image.bytes(), 2);
    }
    Bytes expected(const Packet& packet)
    {
        return stored(packet.header.Kind == kind_sync_read ? image : store,
                      packet.header.Byte_Offset.get() / 512 - 1, packet.data.size());
    }
};

// One of two answers for a hole arrived, and a write filled the hole: by the mask nothing real is missing.
TEST_F(Reads, Whoever_asks_gets_an_answer_though_its_mask_lacks_no_fragment)
{
    Packet packet(kind_read, 40, 512, 1);
    Bytes request = packet.request();
    request[offsetof(formats::WireHeader, Recv_Mask)] = 0xFF;
    request[offsetof(formats::WireHeader, Recv_Mask) + 1] = 0xFD;
    const auto answers = exchange(request);
    ASSERT_EQ(answers.size(), 1u);
    packet.receive(answers[0]);
    EXPECT_EQ(packet.data, expected(packet));
}

TEST_F(Reads, Every_length_at_both_ends_of_disk_and_image_arrives_whole)
{
    for (unsigned length = 512; length <= 16384; length += 512)
        for (const std::uint8_t kind : {kind_read, kind_sync_read})
            for (const bool at_end : {false, true}) {
                const std::uint64_t size = (kind == kind_read ? store : image).size_bytes();
                const std::uint64_t sector = at_end ? (size - length) / 512 : 0;
                Packet packet(kind, sector, length, 1);
                const auto answers = exchange(packet.request());
                EXPECT_EQ(answers.size(), packet.fragments());
                for (const Bytes& answer : answers)
                    packet.receive(answer);
                ASSERT_TRUE(packet.complete()) << length;
                ASSERT_EQ(packet.data, expected(packet)) << length << " bytes at sector " << sector;
            }
    EXPECT_EQ(store.accesses_outside + image.accesses_outside, 0u);
    EXPECT_EQ(counters().sync_reads, 64u);
    EXPECT_EQ(counters().sync_bytes, counters().read_bytes);
}

TEST_F(Reads, Of_an_image_outside_of_it_or_without_one_are_counted_and_dropped)
{
    const std::uint64_t sectors = image.size_bytes() / 512;
    for (const std::uint64_t sector : {~std::uint64_t{0}, sectors - 1, sectors, std::uint64_t{0x7FFFFFFFFF}})
        EXPECT_TRUE(exchange(Packet(kind_sync_read, sector, 1024, 1).request()).empty()) << sector;
    Packet where_negotiations_are(kind_sync_read, ~std::uint64_t{0}, 512, 1);
    EXPECT_TRUE(exchange(where_negotiations_are.request()).empty());
    EXPECT_EQ(protocol.dropped().bad_offset, 5u);
    EXPECT_EQ(image.accesses_outside, 0u);

    server::DiskOptions options;
    std::memcpy(options.disk_id, other_disk_id, 4);
    protocol.add_disk(options, store);
    Packet of_other_disk(kind_sync_read, 0, 512, 1);
    std::memcpy(of_other_disk.header.Disk_Id, other_disk_id, 4);
    EXPECT_TRUE(exchange(of_other_disk.request()).empty());
    EXPECT_EQ(protocol.dropped().no_image, 1u);
    protocol.send_retry_limit(1);
    EXPECT_EQ(sink.take().size(), 1u) << "the workstation cannot be told to give up";
}

TEST_F(Reads, A_query_is_answered_with_exactly_the_fragments_that_are_missing)
{
    Packet sample(kind_read, 3, 6144, 1);
    const auto all = exchange(sample.request());
    ASSERT_EQ(all.size(), 5u);
    for (unsigned lost = 0; lost < 32; ++lost) {
        Packet packet(kind_read, 3, 6144, 1);
        for (unsigned i = 0; i < 5; ++i)
            if ((lost >> i & 1) == 0)
                packet.receive(all[i]);
        ASSERT_EQ(packet.complete(), lost == 0);
        const auto answers = exchange(packet.request(true));
        ASSERT_EQ(answers.size(), static_cast<std::size_t>(std::popcount(lost)));
        for (const Bytes& answer : answers)
            packet.receive(answer);
        EXPECT_TRUE(packet.complete());
        EXPECT_EQ(packet.data, expected(packet));
    }
    EXPECT_EQ(counters().status_queries, 32u);
}

TEST_F(Reads, Two_zero_answers_complete_a_hole_in_any_order_and_one_never_does)
{
    store.holes_known = true;
    Packet sample(kind_read, 32, 16384, 1);
    fill(sample.data, 2);
    const auto zeros = exchange(sample.request());
    ASSERT_EQ(zeros.size(), 2u);
    EXPECT_EQ(zeros[0].size(), 34u);
    for (const auto& arrivals : {std::vector<int>{0, 1}, {1, 0}, {0, 0, 1}, {1, 1, 0}}) {
        Packet packet = sample;
        for (std::size_t i = 0; i + 1 < arrivals.size(); ++i) {
            packet.receive(zeros[static_cast<std::size_t>(arrivals[i])]);
            EXPECT_FALSE(packet.complete());
        }
        packet.receive(zeros[static_cast<std::size_t>(arrivals.back())]);
        EXPECT_TRUE(packet.complete());
        EXPECT_EQ(packet.data, Bytes(16384));
    }
}

// The hole is written to between two answers to one read; whatever is lost and in whatever order the
// rest arrives, the read completes with old and new bytes only.
TEST_F(Reads, A_hole_filled_while_it_is_read_gives_old_or_new_bytes)
{
    std::fill(store.bytes().begin(), store.bytes().end(), std::uint8_t{0});
    store.holes_known = true;
    Packet sample(kind_read, 0, 3072, 1);
    fill(sample.data, 9);
    const auto zeros = exchange(sample.request());
    Packet write = make_write(0, 3072, 1, 3);
    for (const Bytes& fragment : write.send())
        exchange(fragment);
    const auto data = exchange(sample.request());
    ASSERT_EQ(zeros.size() + data.size(), 5u);
    std::vector<Bytes> arriving = zeros;
    arriving.insert(arriving.end(), data.begin(), data.end());
    std::vector<std::size_t> order(arriving.size());
    std::iota(order.begin(), order.end(), 0u);
    do {
        Packet packet = sample;
        for (std::size_t i = 0; i < order.size() && !packet.complete(); ++i) {
            packet.receive(arriving[order[i]]);
            Packet asking = packet;
            for (const Bytes& answer : exchange(asking.request(true)))
                asking.receive(answer);
            ASSERT_TRUE(asking.complete()) << "a query must lead to the end after any step";
        }
        ASSERT_TRUE(packet.complete());
        for (std::size_t i = 0; i < packet.data.size(); ++i)
            ASSERT_TRUE(packet.data[i] == 0 || packet.data[i] == write.data[i]) << "byte " << i;
    } while (std::next_permutation(order.begin(), order.end()));
}

}  // namespace
