// SPDX-License-Identifier: MIT
// A workstation that boots from its own hard disk: its system image is filled from the server while it runs,
// over one start after another.
#include <cstring>

#include <gtest/gtest.h>

#include "formats/image_area.h"
#include "formats/image_descriptor.h"
#include "machine/disk/local_disk.h"
#include "tests/scenario/rig.h"

using namespace scenario;

namespace {

constexpr std::uint32_t system_start = 63, system_sectors = 4000, temporary_start = 5000;
constexpr std::uint32_t chunk_count = 4, first_data = 16 + 3 * 8;

// The server's image of a disk of four chunks: all of them but chunk 2, in one run; by a generation per
// chunk.
Bytes server_image(std::uint32_t tag, std::array<std::uint32_t, chunk_count> generations)
{
    Bytes area((first_data + chunk_count * 128) * 512);
    const auto at = [&](std::uint32_t sector) { return area.data() + sector * 512; };
    const auto link = [&](std::uint32_t table, std::uint32_t to) {
        reinterpret_cast<formats::Le32*>(at(table))->set(to);
    };
    auto& header = *reinterpret_cast<formats::ImageHeader*>(at(0));
    formats::set_new_image(header, chunk_count * 128);
    header.CreateTime.set(4711);
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

void partition(machine::LocalDisk& disk)
{
    Bytes sector(512);
    auto& table = *reinterpret_cast<formats::PartitionSector*>(sector.data());
    table.Partition[0].Type = formats::partition_system_image;
    table.Partition[0].Start.set(system_start);
    table.Partition[0].Count.set(system_sectors);
    table.Partition[1].Type = formats::partition_temporary_image;
    table.Partition[1].Start.set(temporary_start);
    table.Partition[1].Count.set(2000);
    disk.write(0, sector);
}

// One start, with a server that has this image.
class LocalBoot : public Rig {
public:
    LocalBoot(machine::LocalDisk& disk, const Bytes& image) : Rig(local_plan(image))
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
    static Plan local_plan(const Bytes& image)
    {
        Plan plan;
        plan.boot_mode = formats::boot_mode_local_image;
        plan.image = image;
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
        EXPECT_EQ(start.sent(formats::sub_request, formats::kind_sync_read).size(), 5u)
            << "header, root table and three map blocks";
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

}  // namespace
