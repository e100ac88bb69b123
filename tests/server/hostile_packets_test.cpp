// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <random>

#include "tests/seeds.h"
#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

using H = formats::WireHeader;
using Dropped = server::DroppedCounters;

struct Case {
    const char* what;
    std::uint64_t Dropped::*counted_as;
    Bytes packet;
};

// The packet with another value in one field of its header.
template <typename Field>
Bytes with(Bytes packet, Field H::*field, std::uint64_t value)
{
    H header{};
    std::memcpy(&header, packet.data(), std::min(packet.size(), sizeof header));
    if constexpr (std::is_integral_v<Field>)
        header.*field = static_cast<Field>(value);
    else
        (header.*field).set(static_cast<decltype((header.*field).get())>(value));
    std::memcpy(packet.data(), &header, std::min(packet.size(), sizeof header));
    return packet;
}

Bytes with_byte(Bytes packet, std::size_t at, std::uint8_t value)
{
    packet[at] = value;
    return packet;
}

Bytes cut(Bytes packet, std::size_t size)
{
    packet.resize(size);
    return packet;
}

const Bytes read = Packet(formats::kind_read, 0, 1024, 1).request();
const Bytes fragment = make_write(0, 3072, 1, 1).fragment(2);
const Bytes whole = make_write(0, 512, 1, 1).fragment(1);
const Bytes query = make_write(0, 512, 1, 1).request(true);

const Case cases[] = {
    {"nothing", &Dropped::short_packet, {}},
    {"25 bytes", &Dropped::short_packet, cut(read, 25)},
    {"write fragment of 33 bytes", &Dropped::short_packet, cut(fragment, 33)},
    {"read request of 27 bytes", &Dropped::bad_length, cut(read, 27)},
    {"query of 34 bytes", &Dropped::bad_length, cut(query, 34)},
    {"unknown disk", &Dropped::unknown_disk, with_byte(read, 3, 9)},
    {"mirror bit of the id", &Dropped::unknown_disk, with_byte(read, 2, 0x10)},
    {"unknown kind", &Dropped::unknown_kind, with(read, &H::Kind, 0x60)},
    {"an answer", &Dropped::unknown_kind, with(read, &H::Kind, 0x5F)},
    {"unknown subcode", &Dropped::unknown_kind, with(read, &H::Sub_Code, 2)},
    {"poll reply nobody asked for", &Dropped::unknown_kind, with_byte(with_byte(Bytes(226), 0, 2), 1, 0x38)},
    {"length 0", &Dropped::bad_length, with(read, &H::Length, 0)},
    {"length 513", &Dropped::bad_length, with(read, &H::Length, 513)},
    {"length 16896", &Dropped::bad_length, with(read, &H::Length, 16896)},
    {"length 65024 of a write", &Dropped::bad_length, with(fragment, &H::Length, 65024)},
    {"read of sector 0 that is no negotiation", &Dropped::bad_offset, with(read, &H::Byte_Offset, 0)},
    {"write of sector 0", &Dropped::bad_offset, with(whole, &H::Byte_Offset, 0)},
    {"offset within a sector", &Dropped::bad_offset, with(read, &H::Byte_Offset, 513)},
    {"read across the end", &Dropped::bad_offset, with(read, &H::Byte_Offset, 1 << 20)},
    {"read behind the end", &Dropped::bad_offset, with(read, &H::Byte_Offset, (1 << 20) + 512)},
    {"read at the greatest offset", &Dropped::bad_offset, with(read, &H::Byte_Offset, 0xFFFFFFFFFE00)},
    {"write across the end", &Dropped::bad_offset, with(fragment, &H::Byte_Offset, (1 << 20) - 512)},
    {"query behind the end", &Dropped::bad_offset, with(query, &H::Byte_Offset, (1 << 20) + 512)},
    {"fragment 0", &Dropped::bad_fragment, with(fragment, &H::Frag_Num, 0)},
    {"fragment 4 of 3", &Dropped::bad_fragment, with(fragment, &H::Frag_Num, 4)},
    {"fragment 255", &Dropped::bad_fragment, with(fragment, &H::Frag_Num, 255)},
    {"4 fragments of 3072 bytes", &Dropped::bad_fragment, with(fragment, &H::Frag_Cnt, 4)},
    {"no fragments", &Dropped::bad_fragment, with(fragment, &H::Frag_Cnt, 0)},
    {"3 fragments in the low byte only", &Dropped::bad_fragment, with(fragment, &H::Frag_Cnt, 0x103)},
    {"fragment at another offset", &Dropped::bad_fragment, with(fragment, &H::Frag_Off, 1385)},
    {"fragment of another size", &Dropped::bad_fragment, with(fragment, &H::Frag_Size, 1387)},
    {"fragment with a byte less", &Dropped::bad_fragment, cut(fragment, 34 + 1385)},
    {"fragment with a byte more", &Dropped::bad_fragment, cut(fragment, 34 + 1387)},
};

TEST(Hostile_packets, Are_counted_and_dropped_and_touch_nothing)
{
    for (const Case& one : cases) {
        ServerFixture server;
        const auto answers = server.exchange(one.packet);
        EXPECT_TRUE(answers.empty()) << one.what;
        EXPECT_EQ(server.protocol.dropped().*one.counted_as, 1u) << one.what;
        EXPECT_EQ(server.store.writes + server.store.accesses_outside, 0u) << one.what;
        // And it goes on serving.
        Packet packet = make_write(0, 512, 77, 1);
        EXPECT_EQ(server.exchange(packet.fragment(1)).size(), 1u) << one.what;
    }
}

TEST(Hostile_packets, Writes_to_a_readonly_disk_are_dropped)
{
    RecordingSink sink;
    SparseStore store(1 << 20);
    server::Protocol protocol(sink);
    server::DiskOptions options{.readonly = true};
    std::memcpy(options.disk_id, disk_id, 4);
    protocol.add_disk(options, store);
    protocol.receive(peer(7, 1), whole);
    protocol.receive(peer(7, 1), query);
    EXPECT_TRUE(sink.sent.empty());
    EXPECT_EQ(protocol.dropped().readonly, 2u);
    EXPECT_EQ(store.writes, 0u);
}

// A stream of packets that are right but for a few bytes: nothing leaves the store's bounds, nothing is
// sent that is too long, and every packet is either served or counted.
TEST(Hostile_packets, Random_changes_never_leave_the_bounds)
{
    for (unsigned seed = 1; seed <= seeds_of(5); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
        ServerFixture server(65536);
        server.store.holes_known = seed % 2 != 0;
        for (unsigned i = 0; i < 5000; ++i) {
            const unsigned sectors = 1 + below(32);
            Packet packet =
                make_write(below(128), sectors * 512, static_cast<std::uint16_t>(below(4)), below(2));
            if (below(2) != 0)
                packet.header.Kind = formats::kind_read;
            Bytes bytes = packet.header.Kind == formats::kind_read || below(4) == 0
                              ? packet.request(below(2) != 0)
                              : packet.fragment(1 + below(packet.fragments()));
            for (unsigned changes = below(3); changes > 0; --changes)
                bytes[below(std::min<unsigned>(34, static_cast<unsigned>(bytes.size())))] =
                    static_cast<std::uint8_t>(random());
            if (below(8) == 0)
                bytes.resize(below(1500));
            for (const Bytes& answer : server.exchange(bytes, peer(static_cast<std::uint8_t>(below(3)), 9)))
                ASSERT_TRUE(answer.size() >= 26 && answer.size() <= 1420);
        }
        EXPECT_EQ(server.store.accesses_outside, 0u);
        EXPECT_GT(server.counters().writes_completed, 0u);
        EXPECT_GT(server.protocol.dropped().bad_offset, 0u);
    }
}

}  // namespace
