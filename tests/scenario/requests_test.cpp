// SPDX-License-Identifier: MIT
// How requests are cut into chunks, how many run at once, and what tells them apart.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <set>

#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

using formats::kind_read;
using formats::kind_write;
using formats::WireHeader;

unsigned worker_of(const SeenPacket& packet)
{
    return packet.header().Worker_Byte & formats::worker_index_mask;
}

// The packets of all requests so far, each once, by their place on the disk.
std::vector<SeenPacket> packets_of(const Rig& rig, bool write)
{
    std::vector<SeenPacket> packets;
    for (const SeenPacket& packet : rig.sent(formats::sub_request, write ? kind_write : kind_read))
        if (packet.header().Byte_Offset.get() != 0 && (!write || packet.header().Frag_Num == 1))
            packets.push_back(packet);
    std::sort(packets.begin(), packets.end(), [](const SeenPacket& left, const SeenPacket& right) {
        return left.header().Byte_Offset.get() < right.header().Byte_Offset.get();
    });
    return packets;
}

struct Cut {
    const char* what;
    DiskPlan disk;
    std::uint32_t boot_mode;
    bool write;
    std::uint32_t sectors;
    std::vector<unsigned> packet_sectors;
    std::vector<unsigned> packet_indexes;
    unsigned tags;  // different pairs of Tag and Seq
};

const std::vector<unsigned> eight_16(8, 16), zeros_8(8, 0), up_to_7{0, 1, 2, 3, 4, 5, 6, 7};

TEST(Requests, Are_cut_as_disk_direction_and_boot_mode_say)
{
    const Cut cuts[] = {
        {"read in 8 KB chunks", {}, 0, false, 128, eight_16, up_to_7, 1},
        {"read in 16 KB chunks", {.read_kb = 16}, 0, false, 128, {32, 32, 32, 32}, {0, 1, 2, 3}, 1},
        {"read with a short last chunk", {}, 0, false, 37, {16, 16, 5}, {0, 1, 2}, 1},
        {"read of one sector", {}, 0, false, 1, {1}, {0}, 1},
        {"read in default chunks", {.flags = 0, .read_kb = 2}, 0, false, 40, {16, 16, 8}, {0, 1, 2}, 1},
        {"read in boot mode 7", {}, 7, false, 128, eight_16, up_to_7, 1},
        {"write as one chunk", {}, 0, true, 128, eight_16, up_to_7, 1},
        {"write in default packets", {.flags = 0}, 0, true, 30, {12, 12, 6}, {0, 1, 2}, 1},
        {"write split", {.flags = 0x24}, 0, true, 128, eight_16, zeros_8, 8},
        {"short write split", {.flags = 0x24, .write_kb = 16}, 0, true, 33, {32, 1}, {0, 0}, 2},
        {"split bit in boot mode 7", {.flags = 0x24}, 7, true, 128, eight_16, up_to_7, 1}};
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(cut.what);
        Rig rig({.disks = {cut.disk}, .boot_mode = cut.boot_mode});
        Bytes content = pattern(100, cut.sectors * 512), read(cut.sectors * 512);
        rig.run([&] {
            if (cut.write) {
                EXPECT_TRUE(rig.write(0, 100, content));
            } else {
                std::copy(content.begin(), content.end(), rig.main.content(0).begin() + 100 * 512);
                EXPECT_TRUE(rig.read(0, 100, read));
                EXPECT_EQ(read, content);
            }
        });
        EXPECT_TRUE(std::equal(content.begin(), content.end(), rig.main.content(0).begin() + 100 * 512));
        std::vector<unsigned> sectors, indexes;
        std::set<std::pair<unsigned, unsigned>> tags;
        std::uint64_t offset = 101 * 512;
        for (const SeenPacket& packet : packets_of(rig, cut.write)) {
            const WireHeader& header = packet.header();
            EXPECT_EQ(header.Byte_Offset.get(), offset);
            offset += header.Length.get();
            sectors.push_back(header.Length.get() / 512u);
            indexes.push_back(header.Pkt_Index);
            tags.insert({header.Tag.get(), header.Seq.get()});
        }
        EXPECT_EQ(sectors, cut.packet_sectors);
        EXPECT_EQ(indexes, cut.packet_indexes);
        EXPECT_EQ(tags.size(), cut.tags);
    }
}

struct Width {
    const char* what;
    std::uint8_t flags;
    std::uint32_t boot_mode;
    std::map<std::string, std::uint32_t> settings;
    bool write;
    unsigned at_once;
};

// The server answers packet by packet; whoever finishes a chunk goes on with the next.
TEST(Requests, Run_as_many_chunks_at_once_as_the_disk_has_slots)
{
    const Width widths[] = {{"one slot", 0x01, 0, {}, false, 1},
                            {"one slot by its flag", 0x85, 0, {}, false, 1},
                            {"two slots", 0x02, 0, {}, false, 2},
                            {"no slots named", 0x20, 0, {}, false, 4},
                            {"too many slots named", 0x0F, 0, {}, false, 4},
                            {"eight slots raise the number of workers", 0x08, 0, {}, false, 8},
                            {"four slots with two workers asked for", 0x04, 0, {{"RW_THREADS", 2}}, false, 4},
                            {"boot mode 7", 0x04, 7, {}, false, 1},
                            {"write", 0x04, 0, {}, true, 1},
                            {"split write", 0x23, 0, {}, true, 3}};
    for (const Width& width : widths) {
        SCOPED_TRACE(width.what);
        Rig rig({.disks = {{.flags = width.flags, .read_kb = 4, .write_kb = 4}},
                 .boot_mode = width.boot_mode,
                 .settings = width.settings});
        std::deque<SeenPacket> waiting;
        rig.script([&](const SeenPacket& packet) {
            if (packet.header().Byte_Offset.get() == 0)
                for (const Bytes& reply : read_data_all(packet, Bytes(512)))
                    rig.answer(reply);
            else if (!packet.is(formats::sub_request, kind_write) || packet.header().Frag_Num == 1)
                waiting.push_back(packet);
        });
        rig.run([&] {
            constexpr unsigned packets = 16;
            Pending request(rig);
            width.write ? request.write(0, 0, Bytes(65536)) : request.read(0, 0, 65536);
            for (unsigned answered = 0; answered < packets; ++answered) {
                rig.machine.sleep_ms(2);
                ASSERT_EQ(waiting.size(), std::min(width.at_once, packets - answered));
                EXPECT_FALSE(request.done());
                // The middle one, so that answers come in another order than requests.
                SeenPacket packet = waiting[waiting.size() / 2];
                waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(waiting.size() / 2));
                if (width.write)
                    rig.answer(write_done(packet));
                else
                    for (const Bytes& data : read_data_all(packet, Bytes(4096, 1)))
                        rig.answer(data);
                std::size_t left = waiting.size();
                rig.machine.sleep_ms(1);
                if (waiting.size() > left) {
                    EXPECT_EQ(worker_of(waiting.back()), worker_of(packet));
                }
            }
            request.wait();
            EXPECT_TRUE(request.ok());
            EXPECT_EQ(request.data(), Bytes(65536, width.write ? 0 : 1));
        });
    }
}

TEST(Requests, Of_other_disks_go_on_while_one_server_is_silent)
{
    Rig rig({.disks = {{.flags = 2}, {.flags = 2}, {.flags = 2}, {.flags = 2}}});
    bool silent = true;
    rig.drop = [&](const SeenPacket& packet) { return silent && packet.header().Disk_Id[3] == 0xD2; };
    rig.run([&] {
        Pending requests[] = {Pending(rig), Pending(rig), Pending(rig), Pending(rig)};
        for (unsigned lun : {2u, 0u, 1u, 3u})
            requests[lun].read(lun, 0, 65536);
        rig.machine.sleep_ms(5);
        for (unsigned lun = 0; lun < 4; ++lun)
            EXPECT_EQ(requests[lun].ok(), lun != 2) << lun;
        silent = false;
        requests[2].wait();
        EXPECT_TRUE(requests[2].ok());
        // Two slots: their two packets were resent after one time-out, the other six went out at once.
        EXPECT_LT(requests[2].took_ms(), 1115);
    });
}

TEST(Requests, Without_a_byte_complete_without_a_packet)
{
    for (std::uint32_t boot_mode : {0u, 7u}) {
        Rig rig({.boot_mode = boot_mode});
        rig.run([&] {
            for (std::uint32_t lba : {0u, 7u, 2048u}) {
                Pending request(rig);
                request.read(0, lba, 0).wait();
                EXPECT_TRUE(request.ok()) << lba;
                request.write(0, lba, {}).wait();
                EXPECT_TRUE(request.ok()) << lba;
            }
            Bytes data(65536);
            EXPECT_TRUE(rig.read(0, 0, data));  // every slot came back
        });
        EXPECT_EQ(packets_of(rig, false).size(), 8u);
        EXPECT_TRUE(packets_of(rig, true).empty());
    }
}

// The pool of slot blocks can be empty for a moment when the last chunk of a read ends. In a network
// without jitter chunks of several disks end at once often enough for that.
TEST(Requests, Keep_one_tag_for_each_read_even_when_every_slot_number_is_lent_out)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(30); ++seed) {
        DiskPlan disk{.sectors = 1200, .flags = 0x01, .read_kb = 1, .write_kb = 1};
        Rig rig({.seed = seed, .disks = {disk, disk, disk, disk}, .settings = {{"RW_THREADS", 2}}});
        unsigned reads = 0;
        rig.run([&] {
            Traffic traffic(rig, seed, {.operations_each = 20, .request_sectors_max = 6, .writes = 0.3});
            traffic.start();
            traffic.wait();
            EXPECT_EQ(traffic.failed(), 0u);
            reads = traffic.reads();
        });
        std::set<std::array<unsigned, 3>> tags;
        std::set<std::array<unsigned, 2>> sequence_numbers;
        for (const SeenPacket& packet : rig.sent(formats::sub_request, kind_read)) {
            const WireHeader& header = packet.header();
            tags.insert({header.Disk_Id[3], header.Seq.get(), header.Tag.get()});
            sequence_numbers.insert({header.Disk_Id[3], header.Seq.get()});
        }
        EXPECT_EQ(tags.size(), reads) << "seed " << seed;
        EXPECT_EQ(sequence_numbers.size(), reads) << "seed " << seed;
    }
}

}  // namespace
}  // namespace scenario
