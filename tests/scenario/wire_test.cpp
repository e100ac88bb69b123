// SPDX-License-Identifier: MIT
// Every byte of what the driver sends to its servers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/scenario/traffic.h"

namespace scenario {
namespace {

using formats::kind_read;
using formats::kind_write;

// Answers everything at once: reads with zeros, writes with done.
void answer_all(Rig& rig)
{
    rig.script([&rig](const SeenPacket& packet) {
        if (packet.header().Kind == kind_write)
            rig.answer(write_done(packet));
        else
            for (unsigned number : {1u, 2u})
                rig.answer(read_data(packet, number, 0, 0, {}));
    });
}

// The packet with the worker's number, which the schedule decides, taken out.
Bytes without_worker(const SeenPacket& packet)
{
    Bytes bytes = packet.bytes;
    EXPECT_LT(bytes.at(10), 6) << "no sectors routed before, one of six workers";
    bytes[10] = 0;
    return bytes;
}

struct Sent {
    const char* what;
    unsigned lun;
    bool write;
    std::uint32_t lba;
    std::uint32_t sectors;
    std::uint8_t tag[2];
    Bytes place;  // all behind Recv_Mask
};

TEST(Wire, Headers_are_right_to_the_byte)
{
    const Sent cases[] = {
        {"read", 1, false, 16, 8, {0x16, 0x68}, {0, 0, 0, 0, 0x22, 0, 0x10, 0}},
        {"write", 2, true, 7, 2, {0x56, 0x7C}, {0, 0, 0, 0, 0x10, 0, 4, 0, 0, 0, 4, 0, 0, 1, 0, 1}},
        {"read far out", 0, false, 0xFFFFFF, 1, {0x56, 0x7A}, {0, 2, 0, 0, 0, 0, 2, 0}},
        {"last positive sector", 0, false, 0x7FFFFFFE, 1, {0x56, 0x7A}, {0, 0xFF, 0xFF, 0xFF, 0xFE, 0, 2, 0}},
        {"sign extended", 0, false, 0x80000000, 1, {0x56, 0x7A}, {0xFF, 0, 0, 0, 2, 0, 2, 0}}};
    for (const Sent& sent : cases) {
        SCOPED_TRACE(sent.what);
        Rig rig({.disks = std::vector<DiskPlan>(3, DiskPlan{.sectors = 0xFFFFFFFF})});
        answer_all(rig);
        Bytes data = pattern(sent.lba, sent.sectors * 512);
        rig.run([&] {
            EXPECT_TRUE(sent.write ? rig.write(sent.lun, sent.lba, data)
                                   : rig.read(sent.lun, sent.lba, data));
        });
        auto packets = rig.sent(formats::sub_request, sent.write ? kind_write : kind_read);
        ASSERT_EQ(packets.size(), 1u);
        const auto lun = static_cast<std::uint8_t>(sent.lun), id = static_cast<std::uint8_t>(0xD0 + lun),
                   kind = static_cast<std::uint8_t>(sent.write ? 0x5E : 0x5C);
        Bytes expected = {0x51, 0x52, 0, id,   0,    kind, sent.tag[0], sent.tag[1], 1,
                          0,    0,    0, 0xA0, 0xA1, 0xA2, lun,         0,           0};
        expected.insert(expected.end(), sent.place.begin(), sent.place.end());
        if (sent.write)
            expected.insert(expected.end(), data.begin(), data.end());
        EXPECT_EQ(without_worker(packets[0]), expected);
        EXPECT_EQ(std::memcmp(&packets[0].server, &rig.main.address(), sizeof packets[0].server), 0);
    }
}

struct Tags {
    const char* what;
    unsigned lun;
    std::uint8_t boot_flags;
    std::uint32_t tag_key;
    bool write;
    std::uint32_t bytes;
    unsigned tag;  // of the first request
};

// Six workers lend their numbers in turn.
TEST(Wire, Tags_hold_length_and_slot_under_the_key)
{
    const Tags cases[] = {{"read", 0, 0, 0x12345678, false, 512, 0x567A},
                          {"key 0", 0, 0, 0, false, 512, 0x0002},
                          {"slot form", 0, 0x10, 0x12345678, false, 512, 0xD67A},
                          {"slot form of another disk", 1, 0x10, 0, false, 512, 0x8002},
                          {"disk 1", 1, 0, 0x12345678, false, 512, 0x167A},
                          {"disk 2", 2, 0, 0, false, 512, 0x0002},
                          {"disk 3", 3, 0, 0, false, 512, 0x4002},
                          {"longest read", 0, 0, 0xFFFF0000, false, 65536, 0x0100},
                          {"longest write", 0, 0x10, 0x8001, true, 65536, 0x0101}};
    for (const Tags& row : cases) {
        SCOPED_TRACE(row.what);
        Rig rig({.disks = std::vector<DiskPlan>(4), .boot_flags = row.boot_flags, .tag_key = row.tag_key});
        answer_all(rig);
        Bytes data(row.bytes);
        rig.run([&] {
            for (unsigned i = 0; i < 7; ++i)
                EXPECT_TRUE(row.write ? rig.write(row.lun, 0, data) : rig.read(row.lun, 0, data));
        });
        unsigned last_seq = 0;
        for (const SeenPacket& packet : rig.sent(formats::sub_request, row.write ? kind_write : kind_read))
            if (packet.header().Seq.get() != last_seq) {
                EXPECT_EQ(packet.header().Seq.get(), ++last_seq);
                EXPECT_LT(packet.header().Worker_Byte, 6) << "the count of routed sectors starts anew";
                EXPECT_EQ(packet.header().Tag.get(), row.tag ^ (last_seq - 1) % 6 << 12);
            }
        EXPECT_EQ(last_seq, 7u);
    }
}

// Reads and writes of each disk count on their own.
TEST(Wire, Seq_is_little_endian_and_counts_tags_by_disk_and_direction)
{
    Rig rig({.disks = {{.flags = 0x24}, {}}});
    Bytes sector(512), chunks(65536);
    rig.run([&] {
        for (unsigned i = 0; i < 0x102; ++i)
            EXPECT_TRUE(rig.read(0, i, sector));
        EXPECT_TRUE(rig.write(0, 0, chunks));  // eight chunks, eight tags
        EXPECT_TRUE(rig.write(0, 0, sector));
        EXPECT_TRUE(rig.write(1, 0, chunks));  // one chunk, one tag
        EXPECT_TRUE(rig.read(1, 0, chunks));
    });
    auto seq = [&](std::uint8_t kind, std::uint8_t disk) {
        Bytes last;
        for (const SeenPacket& packet : rig.sent(formats::sub_request, kind))
            if (packet.header().Disk_Id[3] == disk)
                last = {packet.bytes[8], packet.bytes[9]};
        return last;
    };
    EXPECT_EQ(seq(kind_read, 0xD0), (Bytes{0x02, 0x01}));
    EXPECT_EQ(seq(kind_write, 0xD0), (Bytes{0x09, 0x00}));
    EXPECT_EQ(seq(kind_write, 0xD1), (Bytes{0x01, 0x00}));
    EXPECT_EQ(seq(kind_read, 0xD1), (Bytes{0x01, 0x00}));
}

struct Fragments {
    std::uint32_t bytes;
    std::vector<unsigned> sizes;
};

TEST(Wire, Writes_are_cut_into_fragments_of_1386_bytes)
{
    const Fragments cases[] = {
        {512, {512}},
        {1024, {1024}},
        {1536, {1386, 150}},
        {2560, {1386, 1174}},
        {3072, {1386, 1386, 300}},
        {6144, {1386, 1386, 1386, 1386, 600}},
        {16384, {1386, 1386, 1386, 1386, 1386, 1386, 1386, 1386, 1386, 1386, 1386, 1138}}};
    for (const auto& [bytes, sizes] : cases) {
        SCOPED_TRACE(bytes);
        Rig rig({.disks = {{.write_kb = 16}}});
        Bytes data = pattern(3, bytes);
        rig.run([&] { EXPECT_TRUE(rig.write(0, 3, data)); });
        auto packets = rig.sent(formats::sub_request, kind_write);
        ASSERT_EQ(packets.size(), sizes.size());
        unsigned offset = 0;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            const formats::WireHeader& header = packets[i].header();
            EXPECT_EQ(header.Length.get(), bytes);
            EXPECT_EQ(header.Frag_Off.get(), offset);
            EXPECT_EQ(header.Frag_Size.get(), sizes[i]);
            EXPECT_EQ(header.Zero, 0);
            EXPECT_EQ(header.Frag_Num, i + 1);
            EXPECT_EQ(header.Frag_Cnt.get(), sizes.size());
            EXPECT_EQ(header.Recv_Mask.get(), 0);
            ASSERT_EQ(packets[i].bytes.size(), formats::header_bytes + sizes[i]);
            EXPECT_EQ(std::memcmp(&packets[i].bytes[formats::header_bytes], &data[offset], sizes[i]), 0);
            offset += sizes[i];
        }
        EXPECT_TRUE(std::equal(data.begin(), data.end(), rig.main.content(0).begin() + 3 * 512));
    }
}

// A status query is the packet's own first 26 bytes with another operation and what has arrived.
TEST(Wire, Queries_and_resends_say_what_has_arrived)
{
    Rig rig;
    rig.script([&, packets = 0](const SeenPacket& packet) mutable {
        if (++packets == 1)
            for (unsigned number : {1u, 3u})
                rig.answer(read_data_all(packet, Bytes(8192))[number - 1]);
        else if (packets == 2)
            rig.answer(acknowledge(packet, 0xFFFE));  // what a server says it misses of a read does not count
    });
    rig.run([&] {
        Pending read(rig), write(rig);
        read.read(0, 0, 8192);
        rig.machine.sleep_ms(2000);
        rig.main.start();
        read.wait();
        EXPECT_EQ(read.data(), Bytes(8192));
        rig.script([&, acknowledged = false](const SeenPacket& packet) mutable {
            if (!std::exchange(acknowledged, true))
                rig.answer(acknowledge(packet, 0xFFF5));  // 2 and 4 of 5 are missing
        });
        write.write(0, 0, pattern(0, 6144));
        rig.machine.sleep_ms(3000);
        rig.main.start();
        write.wait();
    });
    auto expect = [&](std::uint8_t sub_code, std::uint8_t kind, unsigned skip, std::uint16_t mask) {
        auto sent = rig.sent(sub_code, kind);
        ASSERT_GT(sent.size(), skip);
        Bytes expected = rig.sent(formats::sub_request, kind)[0].bytes;
        expected.resize(formats::request_bytes);
        expected[4] = sub_code;
        expected[16] = static_cast<std::uint8_t>(mask >> 8);
        expected[17] = static_cast<std::uint8_t>(mask);
        Bytes bytes = sent[skip].bytes;
        bool fragment = sub_code == formats::sub_request && kind == kind_write;
        EXPECT_EQ(bytes.size() == formats::request_bytes, !fragment);
        bytes.resize(formats::request_bytes);
        EXPECT_EQ(bytes, expected);
    };
    expect(formats::sub_request, kind_read, 0, 0);
    // Bits beyond the last fragment count as arrived as soon as any data has told how many there are.
    expect(formats::sub_status_query, kind_read, 0, 0xFFC5);
    expect(formats::sub_request, kind_read, 1, 0xFFC5);
    expect(formats::sub_request, kind_write, 4, 0);
    expect(formats::sub_request, kind_write, 5, 0xFFF5);
    expect(formats::sub_request, kind_write, 6, 0xFFF5);
    expect(formats::sub_status_query, kind_write, 0, 0xFFF5);
    expect(formats::sub_request, kind_write, 7, 0);  // after a time-out everything goes out again
    auto writes = rig.sent(formats::sub_request, kind_write);
    EXPECT_EQ(writes[5].header().Frag_Num, 2);
    EXPECT_EQ(writes[6].header().Frag_Num, 4);
    EXPECT_EQ(writes[7].header().Frag_Num, 1);
}

}  // namespace
}  // namespace scenario
