// SPDX-License-Identifier: MIT
// Every byte of what the server answers.
#include <gtest/gtest.h>

#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

struct Answers : ServerFixture, testing::Test {
    Answers() { fill(store.bytes(), 1); }
    static Packet marked(Packet packet)
    {
        const std::uint8_t parm[] = {0xA0, 0xA1, 0xA2, 0x03};
        std::memcpy(packet.header.Disk_Parm, parm, sizeof parm);
        packet.header.Tag.set(0xD67A);
        packet.header.Worker_Byte = 0x85;
        packet.header.Pkt_Index = 2;
        return packet;
    }
    // `place` and `more` are everything behind Recv_Mask.
    static Bytes answer(std::uint8_t kind, std::uint16_t mask, const Bytes& place, const Bytes& more = {})
    {
        Bytes bytes = {0x51, 0x52, 0, 1, 0, kind, 0xD6, 0x7A, 0x34, 0x12, 0x85, 2, 0xA0, 0xA1, 0xA2, 3};
        for (const int half : {mask >> 8, mask & 0xFF})
            bytes.push_back(static_cast<std::uint8_t>(half));
        bytes.insert(bytes.end(), place.begin(), place.end());
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes;
    }
    Bytes piece(std::size_t offset, std::size_t size)
    {
        const auto begin = store.bytes().begin() + static_cast<std::ptrdiff_t>(offset);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(size));
    }
};

TEST_F(Answers, Read_data_zeros_acknowledgement_and_completion_are_right_to_the_byte)
{
    const Bytes at_8 = {0, 0, 0, 0, 0x12, 0, 0x0C, 0};  // sector 8, 3072 bytes
    const auto fragment = [&](std::uint16_t mask, Bytes place, const Bytes& data) {
        place.insert(place.end(), data.begin(), data.end());
        return answer(0x5D, mask, at_8, place);
    };
    Packet reading = marked(Packet(formats::kind_read, 8, 3072, 0x1234));
    EXPECT_EQ(exchange(reading.request()),
              (std::vector<Bytes>{fragment(0, {0, 0, 5, 0x6A, 0, 1, 0, 3}, piece(4096, 1386)),
                                  fragment(0, {5, 0x6A, 5, 0x6A, 0, 2, 0, 3}, piece(5482, 1386)),
                                  fragment(0, {0x0A, 0xD4, 1, 0x2C, 0, 3, 0, 3}, piece(6868, 300))}));
    reading.outstanding = 0xFFFFFFFD;
    EXPECT_EQ(exchange(reading.request(true))[0],
              fragment(2, {0, 0, 5, 0x6A, 0, 1, 0, 3}, piece(4096, 1386)));

    Packet writing = marked(make_write(8, 3072, 0x1234, 2));
    EXPECT_EQ(exchange(writing.fragment(2)), std::vector<Bytes>{});
    EXPECT_EQ(exchange(writing.fragment(3)), std::vector<Bytes>{answer(0x5B, 0xFFFE, at_8)});
    EXPECT_EQ(exchange(writing.fragment(1)), std::vector<Bytes>{answer(0x5F, 0xFFFF, at_8)});

    store.holes_known = true;
    reading = marked(Packet(formats::kind_read, 64, 512, 0x1234));
    const Bytes at_64 = {0, 0, 0, 0, 0x82, 0, 2, 0};
    EXPECT_EQ(exchange(reading.request()),
              (std::vector<Bytes>{answer(0x5D, 0, at_64, {0, 0, 0, 0, 0, 1, 0, 0}),
                                  answer(0x5D, 0, at_64, {0, 0, 0, 0, 0, 2, 0, 0})}));
}

TEST_F(Answers, Negotiation_names_the_cache_size_of_the_disk_that_was_asked_about)
{
    server::DiskOptions cached{.cache_mb = 0xFEDC};
    std::memcpy(cached.disk_id, other_disk_id, 4);
    protocol.add_disk(cached, store);
    for (const bool with_cache : {false, true}) {
        Packet asking = marked(Packet(formats::kind_read, 0, 512, 0x1234));
        asking.header.Disk_Id[3] = with_cache ? 2 : 1;
        asking.header.Byte_Offset.set(0);
        Bytes reply(512);
        const std::string text = with_cache ? "RAM cache" : "no RAM cache";
        std::copy(text.begin(), text.end(), reply.begin() + 4);
        if (with_cache)
            reply[132] = 0xDC, reply[133] = 0xFE;
        Bytes expected = answer(0x5D, 0, {0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 1, 0, 1}, reply);
        expected[3] = asking.header.Disk_Id[3];
        EXPECT_EQ(exchange(asking.request()), std::vector<Bytes>{expected}) << text;
    }
}

}  // namespace
