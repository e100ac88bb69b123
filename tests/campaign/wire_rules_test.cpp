// SPDX-License-Identifier: MIT
// Packets that break a rule of the wire fail a seed, and those that keep all of them do not.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "campaign/wire_rules.h"

using namespace campaign;
using formats::WireHeader;

namespace {

constexpr std::uint32_t key = 0x12345678;
constexpr unsigned write_bytes = 2048;  // two fragments

Plan mirrored_disk()
{
    Plan plan{};
    plan.tag_key = key;
    plan.rack_level = 0x701;
    DiskPlan disk{};
    disk.sectors = 100;
    disk.flags = 4;
    disk.read_kb = disk.write_kb = 2;
    disk.mirrored = true;
    plan.disks = {disk};
    return plan;
}

class WireRule : public testing::Test {
protected:
    WireRule()
    {
        const auto id = simulation::disk_id(0, true);
        std::copy(id.begin(), id.end(), header.Disk_Id);
        header.Kind = formats::kind_write;
        header.Tag.set(static_cast<std::uint16_t>(write_bytes / 256 ^ key));
        header.Seq.set(7);
        header.Disk_Parm[0] = 0xA0;
        header.Byte_Offset.set(512);
        header.Length.set(write_bytes);
        header.Frag_Size.set(formats::fragment_bytes_max);
        header.Frag_Num = 1;
        header.Frag_Cnt.set(2);
    }
    bool send(std::int64_t now_ms, bool to_slave = false)
    {
        std::vector<std::uint8_t> packet(bytes);
        std::memcpy(packet.data(), &header, std::min<std::size_t>(bytes, formats::header_bytes));
        return rules.sent(packet, to_slave, now_ms);
    }
    void expect_broken(const char* what, std::int64_t now_ms = 0)
    {
        EXPECT_EXIT(
            send(now_ms), [](int status) { return status != 0; }, "")
            << what;
    }

    Plan plan = mirrored_disk();
    WireRules rules{plan};
    WireHeader header{};
    std::size_t bytes = formats::header_bytes + formats::fragment_bytes_max;
};

TEST_F(WireRule, Every_field_counts)
{
    EXPECT_FALSE(send(0));
    const WireHeader good = header;
    const std::pair<const char*, void (*)(WireHeader&)> changes[] = {
        {"disk", [](WireHeader& changed) { changed.Disk_Id[3] = 0xD1; }},
        {"mirror bit", [](WireHeader& changed) { changed.Disk_Id[2] = 0; }},
        {"kind", [](WireHeader& changed) { changed.Kind = 0x60; }},
        {"image of a disk without", [](WireHeader& changed) { changed.Kind = formats::kind_sync_read; }},
        {"half a sector", [](WireHeader& changed) { changed.Byte_Offset.set(768); }},
        {"place of the negotiation", [](WireHeader& changed) { changed.Byte_Offset.set(0); }},
        {"past the end", [](WireHeader& changed) { changed.Byte_Offset.set(98 * 512); }},
        {"longer than its transfer",
         [](WireHeader& changed) { changed.Tag.set(static_cast<std::uint16_t>(4 ^ key)); }},
        {"longer than a packet",
         [](WireHeader& changed) { changed.Length.set(4096), changed.Frag_Cnt.set(3); }},
        {"fragments", [](WireHeader& changed) { changed.Frag_Cnt.set(3); }},
        {"number 0", [](WireHeader& changed) { changed.Frag_Num = 0; }},
        {"place of a fragment", [](WireHeader& changed) { changed.Frag_Off.set(1386); }},
        {"size of a fragment", [](WireHeader& changed) { changed.Frag_Size.set(662); }},
        {"query of old servers", [](WireHeader& changed) { changed.Sub_Code = formats::sub_status_query; }}};
    for (const auto& [what, change] : changes) {
        header = good;
        change(header);
        expect_broken(what, 5000);
    }
    header = good;
    bytes = formats::request_bytes;
    expect_broken("without its data", 5000);
}

TEST_F(WireRule, Nothing_goes_twice_within_a_second_of_silence)
{
    rules.answered(std::vector<std::uint8_t>(formats::header_bytes), 0);
    EXPECT_FALSE(send(1000));
    expect_broken("no second has passed", 1900);
    EXPECT_FALSE(send(2000));
    header.Seq.set(8);
    EXPECT_FALSE(send(2100)) << "another packet";
    rules.answered(std::vector<std::uint8_t>(formats::header_bytes), 2300);
    EXPECT_FALSE(send(2310)) << "it was asked for";
}

TEST_F(WireRule, Write_of_the_slave_alone_is_told_from_a_copy)
{
    EXPECT_FALSE(send(0));
    header.Seq.set(static_cast<std::uint16_t>(~7));
    EXPECT_FALSE(send(10, true));
    header.Seq.set(8);
    EXPECT_TRUE(send(20, true));
}

}  // namespace
