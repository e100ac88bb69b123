// SPDX-License-Identifier: MIT
// A workstation that boots from its own hard disk: its system image is filled from the server while it runs,
// over one start after another.
#include <algorithm>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "formats/image_area.h"
#include "formats/image_descriptor.h"
#include "machine/disk/local_disk.h"
#include "tests/scenario/traffic.h"

using namespace scenario;

namespace {

constexpr std::uint32_t system_start = 63, system_sectors = 4000, temporary_start = 5000;
constexpr std::uint32_t chunk_count = 4, first_data = 16 + 3 * 8;

// The server's image of a disk of four chunks: all of them but chunk 2, in one run; by a generation per
// chunk.
Bytes server_image(std::uint32_t tag, std::array<std::uint32_t, chunk_count> generations,
                   std::uint64_t create_time = 4711)
{
    Bytes area((first_data + chunk_count * 128) * 512);
    const auto at = [&](std::uint32_t sector) { return area.data() + sector * 512; };
    const auto link = [&](std::uint32_t table, std::uint32_t to) {
        reinterpret_cast<formats::Le32*>(at(table))->set(to);
    };
    auto& header = *reinterpret_cast<formats::ImageHeader*>(at(0));
    formats::set_new_image(header, chunk_count * 128);
    header.CreateTime.set(create_time);
    header.ModifyTag.set(tag);
    header.Used.set(first_data + chunk_count * 128);
    header.Map_Secs.set(8 + 3 * 8);
    header.ChkSum.set(formats::image_checksum(&header));
    link(8, 16);
    link(16, 24);
    link(24, 32);
    auto& leaf = *reinterpret_cast<formats::LeafBlock*>(at(32));
    for (std::uint32_t chunk : {0u, 1u, 3u}) {
        leaf.Chunk[chunk].Data_Sec.set(first_data + chunk * 128);
        leaf.Chunk[chunk].ModifyTag.set(generations[chunk]);
        std::memset(leaf.Chunk[chunk].SecFlag, 0xFF, sizeof leaf.Chunk[chunk].SecFlag);
        const Bytes data = pattern(chunk * 128, 65536, generations[chunk]);
        std::memcpy(at(first_data + chunk * 128), data.data(), data.size());
    }
    return area;
}

void partition(machine::LocalDisk& disk, std::uint32_t temporary = temporary_start,
               std::uint32_t temporary_sectors = 2000)
{
    Bytes sector(512);
    auto& table = *reinterpret_cast<formats::PartitionSector*>(sector.data());
    table.Partition[0].Type = formats::partition_system_image;
    table.Partition[0].Start.set(system_start);
    table.Partition[0].Count.set(system_sectors);
    table.Partition[1].Type = formats::partition_temporary_image;
    table.Partition[1].Start.set(temporary);
    table.Partition[1].Count.set(temporary_sectors);
    disk.write(0, sector);
}

// One start, with a server that has this image.
class LocalBoot : public Rig {
public:
    // workers: 0 for as many as the driver takes by itself.
    LocalBoot(machine::LocalDisk& disk, const Bytes& image, DiskPlan lun_0 = {}, std::uint32_t workers = 0)
        : Rig(local_plan(image, lun_0, workers))
    {
        formats::ImageDescriptor descriptor{0xE9, {}, 0x90, {'Q', 'R', 'N', 'H'}, {}};
        descriptor.Displacement.set(0x40);
        descriptor.Kind.set(0x1044);
        machine.memory().write(614400 + 0x200,
                               {reinterpret_cast<const std::uint8_t*>(&descriptor), sizeof descriptor});
        machine.add_local_disk(disk, 1);
        main.content(0) =
            pattern(0, main.content(0).size(), 9);  // not what the image has, to tell them apart
    }
    // The first 64 KB write starts the synchronisation.
    void synchronise(const char* end)
    {
        ASSERT_TRUE(write(0, 1, pattern(1, 65536, 50)));
        for (int second = 0; second < 300 && !logged("QRNH_IMG_SYNC: End="); ++second)
            machine.sleep_ms(1000);
        EXPECT_TRUE(logged(end)) << machine.log().text();
    }
    void expect(std::uint32_t lba, std::size_t bytes, const Bytes& content)
    {
        Bytes data(bytes);
        EXPECT_TRUE(read(0, lba, data));
        EXPECT_TRUE(data == content) << "LBA " << lba;
    }

private:
    static Plan local_plan(const Bytes& image, const DiskPlan& lun_0, std::uint32_t workers)
    {
        Plan plan;
        plan.disks = {lun_0};
        plan.boot_mode = formats::boot_mode_local_image;
        plan.image = image;
        if (workers)
            plan.settings["RW_THREADS"] = workers;
        plan.adjust_block = [](formats::Boot_Param& block) {
            block.Disk_Nums = 2;
            block.Local_Nums = 1;
        };
        return plan;
    }
};

TEST(LocalBoot, System_image_is_filled_once_and_then_kept_in_step)
{
    machine::LocalDisk disk(8000);
    partition(disk);
    const Bytes first = server_image(1, {1, 1, 0, 1}), second = server_image(2, {1, 2, 0, 1});
    {
        LocalBoot start(disk, first);
        start.run([&] {
            start.synchronise("QRNH_IMG_SYNC: End=0");
            start.main.stop();
            start.expect(1, 65536, pattern(1, 65536, 50));
            start.expect(129, 8192, pattern(129, 8192, 1));
            start.expect(256, 4096, Bytes(4096));
            start.expect(384, 32768, pattern(384, 32768, 1));
        });
        EXPECT_GT(start.sent(formats::sub_request, formats::kind_sync_read).size(), 24u);
    }
    {
        LocalBoot start(disk, first);
        start.run([&] { start.synchronise("QRNH_IMG_SYNC: End=0"); });
        EXPECT_EQ(start.sent(formats::sub_request, formats::kind_sync_read).size(), 6u)
            << "header, root table, three map blocks, and the header again";
    }
    {
        LocalBoot start(disk, second);
        start.run([&] {
            start.synchronise("QRNH_IMG_SYNC: End=0");
            start.main.stop();
            start.expect(129, 64 * 512, pattern(129, 64 * 512, 2));
            start.expect(0, 512, Bytes(512));
            start.expect(500, 512, pattern(500, 512, 1));
        });
        EXPECT_TRUE(start.logged("\nQRNH_Img_Sync: Sync_Tag 1!=2"));
    }
}

TEST(LocalBoot, Shutdown_waits_for_the_run_to_stop_after_its_chunk)
{
    machine::LocalDisk disk(8000);
    partition(disk);
    LocalBoot start(disk, server_image(1, {1, 1, 0, 1}));
    start.drop = [](const SeenPacket& packet) {
        return packet.header().Kind == formats::kind_sync_read &&
               packet.header().Byte_Offset.get() >= (first_data + 1) * 512;
    };
    start.run([&] {
        EXPECT_TRUE(start.write(0, 1, pattern(1, 65536, 50)));
        start.machine.sleep_ms(2000);
        EXPECT_FALSE(start.logged("QRNH_IMG_SYNC: End="));
        start.drop = nullptr;
        const double before_ms = start.now_ms();
        start.scsi().shutdown();
        EXPECT_TRUE(start.logged("QRNH_IMG_SYNC: End=1")) << start.machine.log().text();
        EXPECT_LT(start.now_ms() - before_ms, 2500);
        EXPECT_EQ(start.machine.pool_bytes("QRNM") / 65536, 6u) << "bounce areas; the run's buffer is gone";
    });
}

// Fed one request at a time, the port driver holds the shutdown back behind a write that waits for the only
// worker, which the run keeps while its server is away.
TEST(LocalBoot, Shutdown_reaches_a_disk_whose_only_worker_waits_for_the_run)
{
    machine::LocalDisk disk(8000);
    partition(disk);
    LocalBoot start(disk, server_image(1, {1, 1, 0, 1}),
                    {.flags = formats::disk_flag_one_slot, .retry_mins = 0}, 1);
    start.drop = [](const SeenPacket& packet) {
        return packet.header().Kind == formats::kind_sync_read &&
               packet.header().Byte_Offset.get() >= (first_data + 1) * 512;
    };
    start.run([&] {
        EXPECT_TRUE(start.write(0, 1, pattern(1, 65536, 50)));
        start.machine.sleep_ms(2000);
        Bytes data = pattern(1, 512, 51);
        machine::ScsiRequest waiting(start.scsi());
        bool done = false;
        waiting.done = [&](machine::ScsiRequest&) { done = true; };
        waiting.set_read(0, 200, data.data(), 512);
        start.scsi().submit(waiting);
        start.machine.sleep_ms(5000);
        EXPECT_FALSE(done) << "the worker is free";
        const double before_ms = start.now_ms();
        start.scsi().shutdown();
        EXPECT_LT(start.now_ms() - before_ms, 60'000);
        EXPECT_TRUE(done);
    });
}

// A local disk whose system image was filled from this server's image.
void fill(machine::LocalDisk& disk, const Bytes& image)
{
    partition(disk);
    LocalBoot start(disk, image);
    start.run([&] { start.synchronise("QRNH_IMG_SYNC: End=0"); });
}

TEST(LocalBoot, Shows_one_version_of_the_disk)
{
    const Bytes image = server_image(1, {1, 1, 0, 1});
    machine::LocalDisk disk(8000);
    fill(disk, image);
    {
        LocalBoot start(disk, image);
        start.run([&] {
            start.expect(129, 4096, pattern(129, 4096, 9));
            start.main.stop();
            Bytes data(4096);
            EXPECT_FALSE(start.read(0, 385, data)) << "the image has it, and the server may have had another";
        });
    }
    {
        LocalBoot start(disk, image);
        start.run([&] {
            start.main.stop();
            start.expect(385, 4096, pattern(385, 4096, 1));
            start.main.start();
            start.expect(129, 4096, pattern(129, 4096, 1));
        });
    }
}

// Whatever the disk's patience is, and with one slot.
TEST(LocalBoot, Image_serves_when_its_server_stays_silent)
{
    const Bytes image = server_image(1, {1, 1, 0, 1});
    for (std::uint8_t retry_mins : {std::uint8_t{0}, std::uint8_t{1}}) {
        machine::LocalDisk disk(8000);
        fill(disk, image);
        LocalBoot start(disk, image, {.flags = formats::disk_flag_one_slot | 1, .retry_mins = retry_mins});
        start.run([&] {
            start.main.stop();
            // The disk has no cache to be asked about when the server says nothing.
            ASSERT_TRUE(start.write(0, 1, pattern(1, 65536, 50)));
            const double before_ms = start.now_ms();
            start.expect(385, 4096, pattern(385, 4096, 1));
            EXPECT_LE(start.now_ms() - before_ms, 80'000);
            start.expect(129, 4096, pattern(129, 4096, 1));
        });
    }
}

TEST(LocalBoot, What_an_image_that_was_not_checked_lacks_has_the_patience_of_its_disk)
{
    machine::LocalDisk disk(8000);
    partition(disk);
    LocalBoot start(disk, server_image(1, {1, 1, 0, 1}), {.retry_mins = 1});
    start.run([&] {
        start.main.stop();
        ASSERT_TRUE(start.write(0, 1, pattern(1, 65536, 50)));
        start.machine.sleep_ms(20'000);
        Pending comes_back(start);
        comes_back.read(0, 129, 4096);
        start.machine.sleep_ms(5'000);
        start.main.start();
        comes_back.wait();
        EXPECT_TRUE(comes_back.ok());
        EXPECT_EQ(comes_back.data(), pattern(129, 4096, 9));
        start.main.stop();
        Pending stays_away(start);
        stays_away.read(0, 385, 4096).wait();
        EXPECT_FALSE(stays_away.ok());
        EXPECT_GE(stays_away.took_ms(), 55'000);
        EXPECT_LE(stays_away.took_ms(), 80'000);
    });
}

TEST(LocalBoot, Server_image_that_is_replaced_during_the_run_fails_it)
{
    const Bytes image = server_image(1, {1, 1, 0, 1}), other = server_image(1, {7, 7, 0, 7}, 4712);
    machine::LocalDisk disk(8000);
    partition(disk);
    {
        LocalBoot start(disk, image);
        start.drop = [&](const SeenPacket& packet) {
            if (packet.header().Kind == formats::kind_sync_read &&
                packet.header().Byte_Offset.get() > (first_data + 128) * 512)
                start.main.image(0).bytes() = other;
            return false;
        };
        start.run([&] {
            start.synchronise("QRNH_IMG_SYNC: End=2");
            start.main.stop();
            for (std::uint32_t lba : {129u, 385u}) {
                Bytes data(4096);
                EXPECT_FALSE(start.read(0, lba, data));
            }
        });
    }
    LocalBoot next(disk, other);
    next.run([&] {
        next.synchronise("QRNH_IMG_SYNC: End=0");
        next.main.stop();
        next.expect(129, 4096, pattern(129, 4096, 7));
        next.expect(385, 4096, pattern(385, 4096, 7));
    });
}

TEST(LocalBoot, What_the_local_disk_holds_does_not_wait_for_the_server)
{
    const Bytes image = server_image(1, {1, 1, 0, 1});
    machine::LocalDisk disk(8000);
    partition(disk);
    LocalBoot start(disk, image, {.flags = 0x08});
    start.run([&] {
        ASSERT_TRUE(start.write(0, 1, pattern(1, 32768, 50)));
        start.main.stop();
        std::vector<std::unique_ptr<Pending>> missing;
        for (unsigned i = 0; i < 12; ++i) {
            missing.push_back(std::make_unique<Pending>(start));
            missing.back()->read(0, 300 + 8 * i, 4096);
        }
        start.machine.sleep_ms(100);
        for (unsigned i = 0; i < 8; ++i) {
            Pending held(start);
            held.read(0, 1 + 8 * i, 4096).wait();
            EXPECT_TRUE(held.ok());
            EXPECT_EQ(held.data(), pattern(1 + 8 * i, 4096, 50));
            EXPECT_LE(held.took_ms(), 50);
            start.machine.sleep_ms(300);
        }
        start.main.start();
        for (const auto& read : missing) {
            read->wait();
            EXPECT_TRUE(read->ok());
        }
    });
}

TEST(LocalBoot, Damaged_map_is_made_anew)
{
    const Bytes image = server_image(1, {1, 1, 0, 1});
    machine::LocalDisk disk(8000);
    fill(disk, image);
    Bytes table(512, 0xFF);
    disk.write(system_start + 16, table);
    LocalBoot start(disk, image);
    start.run([&] {
        start.synchronise("QRNH_IMG_SYNC: End=0");
        start.main.stop();
        start.expect(129, 4096, pattern(129, 4096, 1));
    });
}

// A server that has no area may say nothing when it is asked for one.
TEST(LocalBoot, Look_for_the_servers_image_leaves_the_only_slot_to_requests)
{
    machine::LocalDisk disk(8000);
    partition(disk);
    LocalBoot start(disk, {}, {.flags = formats::disk_flag_one_slot | 1});
    start.drop = [](const SeenPacket& packet) {
        return packet.header().Kind == formats::kind_sync_read &&
               packet.header().Byte_Offset.get() >= (first_data + 1) * 512;
    };
    start.run([&] {
        ASSERT_TRUE(start.write(0, 1, pattern(1, 65536, 50)));
        start.machine.sleep_ms(500);
        ASSERT_GT(start.sent(formats::sub_request, formats::kind_sync_read).size(), 0u);
        Pending read(start);
        read.read(0, 300, 4096).wait();
        EXPECT_TRUE(read.ok());
        EXPECT_LE(read.took_ms(), 100);
    });
}

// What the workstation tells a server that asks for its state.
std::uint32_t polled_write_sectors(Rig& rig)
{
    Bytes poll(30);
    std::copy(std::begin(formats::poll_mark), std::end(formats::poll_mark), poll.begin());
    rig.network.inject(poll);
    rig.machine.sleep_ms(1);
    for (const SeenPacket& packet : rig.packets())
        if (packet.bytes.size() == sizeof(formats::PollReply) &&
            packet.bytes[1] == formats::poll_reply_mark[1])
            return reinterpret_cast<const formats::PollReply*>(packet.bytes.data())->Disks[0].Wr_Secs.get();
    ADD_FAILURE() << "the poll is not answered";
    return 0;
}

// A write that crosses the end of a chunk goes past a full temporary image in two runs.
TEST(LocalBoot, Runs_of_one_write_past_the_images_do_not_pass_for_each_other)
{
    machine::LocalDisk disk(8000);
    partition(disk, temporary_start, first_data + 128);
    LocalBoot start(disk, server_image(1, {1, 1, 0, 1}));
    std::uint32_t written_sectors = 0;
    start.run([&] {
        ASSERT_TRUE(start.write(0, 7, pattern(7, 4096, 2)));
        start.forget_packets();
        ASSERT_TRUE(start.write(0, 200, pattern(200, 65536, 3)));
        start.expect(200, 65536, pattern(200, 65536, 3));
        written_sectors = polled_write_sectors(start);
    });
    EXPECT_EQ(written_sectors, 8u + 128u) << "each sector counts once";
    std::set<std::pair<unsigned, std::uint64_t>> runs;
    for (const SeenPacket& packet : start.sent(formats::sub_request, formats::kind_write)) {
        const auto& header = packet.header();
        runs.insert({header.Seq.get(), header.Byte_Offset.get() - header.Pkt_Index * 8192u});
    }
    EXPECT_EQ(runs.size(), 2u) << "each counts its packets from 0";
    EXPECT_NE(runs.begin()->first, runs.rbegin()->first) << "under a tag of its own";
    EXPECT_TRUE(std::equal(start.main.content(0).begin() + 200 * 512,
                           start.main.content(0).begin() + 328 * 512, pattern(200, 65536, 3).begin()));
}

TEST(LocalBoot, Areas_that_overlap_are_no_images)
{
    machine::LocalDisk disk(8000);
    partition(disk, system_start + system_sectors - 1);
    LocalBoot start(disk, server_image(1, {1, 1, 0, 1}));
    start.run([&] {
        ASSERT_TRUE(start.write(0, 7, pattern(7, 4096, 3)));
        start.expect(7, 4096, pattern(7, 4096, 3));
    });
    EXPECT_FALSE(start.logged("QRNH_MBR_Init: Create"));
    EXPECT_TRUE(std::equal(start.main.content(0).begin() + 7 * 512, start.main.content(0).begin() + 15 * 512,
                           pattern(7, 4096, 3).begin()));
}

}  // namespace
