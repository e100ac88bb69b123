// SPDX-License-Identifier: MIT
// The boot program's packets against the block server's protocol core, and against liars.
#include <gtest/gtest.h>

#include "boot/block_packet.h"
#include "tests/server/workstation_model.h"

using namespace boot;
using namespace server_test;

namespace {

struct Packets : testing::Test {
    RecordingSink sink;
    SparseStore store{256 * 512};
    server::Protocol protocol{sink};
    DiskPlace disk{};
    BlockPacket packet;
    Bytes buffer = Bytes(16384, 0xEE);

    Packets()
    {
        for (std::size_t i = 0; i < store.bytes().size(); ++i)
            store.bytes()[i] = static_cast<std::uint8_t>(i / 512 * 3 + i);
        server::DiskOptions options;
        std::memcpy(options.disk_id, disk_id, 4);
        protocol.add_disk(options, store);
        std::memcpy(disk.id, disk_id, 4);
        disk.tag_slot_form = true;
        disk.tag_key = 0x12345678;
    }
    std::vector<Bytes> ask(const formats::WireHeader& header, const Bytes& data = {})
    {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
        Bytes datagram(bytes, bytes + (data.empty() ? formats::request_bytes : formats::header_bytes));
        datagram.insert(datagram.end(), data.begin(), data.end());
        protocol.receive(peer(9, 9), datagram);
        return sink.take();
    }
    Landing land(const Bytes& datagram)
    {
        const Landing landing = packet.take(datagram.data(), static_cast<unsigned>(datagram.size()));
        if (landing.has_data)
            std::copy_n(datagram.begin() + formats::header_bytes, landing.size,
                        buffer.begin() + landing.offset);
        return landing;
    }
    bool buffer_is(unsigned lba, unsigned sectors)
    {
        return std::equal(buffer.begin(), buffer.begin() + sectors * 512, store.bytes().begin() + lba * 512);
    }
};

TEST_F(Packets, Read_gets_only_what_is_missing_and_any_order_will_do)
{
    packet.begin(disk, false, 8, 32, 7);
    std::vector<Bytes> answers = ask(packet.request(false));
    ASSERT_EQ(answers.size(), 12u);
    for (const unsigned i : {11u, 0u, 0u, 5u})
        EXPECT_TRUE(land(answers[i]).is_ours);
    EXPECT_FALSE(land(answers[0]).has_data) << "came before";
    answers = ask(packet.request(true));
    EXPECT_EQ(answers.size(), 9u);
    for (const Bytes& answer : answers) {
        EXPECT_FALSE(packet.is_complete());
        land(answer);
    }
    EXPECT_TRUE(packet.is_complete());
    EXPECT_TRUE(buffer_is(8, 32));
    EXPECT_FALSE(land(answers[0]).is_ours) << "late";
}

TEST_F(Packets, A_hole_is_zeros)
{
    store.holes_known = true;
    packet.begin(disk, false, 64, 4, 7);
    EXPECT_TRUE(land(ask(packet.request(false)).at(0)).is_zeros);
    EXPECT_TRUE(packet.is_complete());
}

TEST_F(Packets, Write_resends_what_the_server_lacks_and_ends_when_it_is_stored)
{
    packet.begin(disk, true, 16, 6, 9);
    Bytes data(3072, 0x5A);
    const auto send = [&](unsigned index) {
        const formats::WireHeader& header = packet.fragment(index);
        const auto begin = data.begin() + header.Frag_Off.get();
        return ask(header, Bytes(begin, begin + header.Frag_Size.get()));
    };
    send(0);
    for (const Bytes& answer : ask(packet.request(true)))
        EXPECT_TRUE(land(answer).wants_resend);
    EXPECT_FALSE(packet.is_outstanding(0));
    EXPECT_TRUE(packet.is_outstanding(1) && packet.is_outstanding(2));
    send(1);
    for (const Bytes& answer : send(2))
        land(answer);
    EXPECT_TRUE(packet.is_complete());
    EXPECT_TRUE(std::equal(data.begin(), data.end(), store.bytes().begin() + 16 * 512));
    EXPECT_EQ(store.bytes()[16 * 512 + 3072], static_cast<std::uint8_t>(22 * 3 + 22 * 512));
}

TEST_F(Packets, Answers_that_do_not_belong_or_lie_about_their_place_do_nothing)
{
    packet.begin(disk, false, 8, 6, 7);
    const std::vector<Bytes> answers = ask(packet.request(false));
    for (unsigned offset = 0; offset < formats::header_bytes; ++offset) {
        const bool is_free = offset == 4 || (offset >= 16 && offset < 26) || offset == 30;
        Bytes wrong = answers[1];
        wrong[offset] ^= 0x40;
        EXPECT_EQ(land(wrong).is_ours, is_free) << "byte " << offset;
        packet.resend_all();
    }
    for (const unsigned size : {0u, 25u, 33u, 34u, 1400u})
        EXPECT_FALSE(land(Bytes(answers[1].begin(), answers[1].begin() + size)).is_ours) << size;
}

TEST(Patience, Grows_to_four_seconds)
{
    for (unsigned resends = 0; resends < 300; ++resends) {
        EXPECT_LE(wait_ticks(resends), wait_ticks(resends + 1));
        EXPECT_LE(wait_ticks(resends), 4 * ticks_per_second);
    }
}

TEST(Window, Is_halved_by_a_loss_and_grows_with_every_whole_packet)
{
    Window window;
    EXPECT_EQ(window.next_sectors(0, 127, 16), 16u);
    EXPECT_EQ(window.next_sectors(16, 111, 16), 16u);
    EXPECT_EQ(window.next_sectors(32, 95, 16), 0u);
    EXPECT_EQ(window.next_sectors(31, 1, 16), 1u) << "the last sector of a transfer";
    window.packet_done(true);
    EXPECT_EQ(window.next_sectors(0, 127, 32), 16u);
    for (unsigned i = 0; i < 8; ++i)
        window.packet_done(true);
    EXPECT_EQ(window.next_sectors(0, 127, 32), 16u) << "lost at the same time";
    for (unsigned i = 0; i < 9 * 10; ++i)
        window.packet_done(true);
    EXPECT_EQ(window.next_sectors(0, 127, 32), 4u);
    for (unsigned i = 0; i < 1000; ++i)
        window.packet_done(false);
    EXPECT_EQ(window.next_sectors(96, 127, 32), 32u);
    EXPECT_EQ(window.next_sectors(128, 127, 32), 0u);
}

}  // namespace
