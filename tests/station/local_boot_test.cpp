// SPDX-License-Identifier: MIT
// What the station does in the place of local boot code, on local disks as a test lays them out.
#include "station/local_boot.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "formats/image_descriptor.h"
#include "tests/scratch_folder.h"

using namespace station;
using namespace formats;

namespace {

constexpr std::uint32_t disk_sectors = 1000, system_start = 64, system_sectors = 400;
constexpr std::uint32_t data_sector = 100;
constexpr char content = 0x5A;

class LocalDisk : public testing::Test {
protected:
    LocalDisk()
    {
        table.Signature.set(boot_signature);
        table.Partition[1].Type = partition_system_image;
        table.Partition[1].Start.set(system_start);
        table.Partition[1].Count.set(system_sectors);
        set_new_image(header, 2048);
        header.Used.set(300);
        root.Level1_Sec[0].set(16);
        level1.Next_Sec[0].set(24);
        level2.Next_Sec[0].set(32);
        leaf.Chunk[0].Data_Sec.set(data_sector);
        leaf.Chunk[0].ModifyTag.set(1);
        leaf.Chunk[0].SecFlag[0] = 1;
    }
    template <typename Block>
    void put(std::fstream& file, std::uint32_t sector, const Block& block) const
    {
        file.seekp(sector * sector_bytes);
        file.write(reinterpret_cast<const char*>(&block), sizeof block);
    }
    void write() const
    {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
        put(file, 0, table);
        ImageHeader whole = header;
        whole.ChkSum.set(image_checksum(&header) + damage);
        put(file, system_start, whole);
        put(file, system_start + root_sector, root);
        put(file, system_start + 16, level1);
        put(file, system_start + 24, level2);
        put(file, system_start + 32, leaf);
        file.seekp((system_start + data_sector) * sector_bytes);
        file << std::string(sector_bytes, content) << std::string(sector_bytes, content + 1);
        file.close();
        std::filesystem::resize_file(path, disk_sectors * sector_bytes);
    }
    // Byte 0 of the first sector, or -1.
    int booted() const
    {
        write();
        const auto sector = LocalDiskFile(path).first_sector();
        return sector ? (*sector)[0] : -1;
    }
    void expect_refusal(const char* reason) const
    {
        write();
        try {
            LocalDiskFile disk(path);
            ADD_FAILURE() << "was taken, should be: " << reason;
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
        }
    }

    const ScratchFolder folder;
    const std::string path = folder / "disk";
    PartitionSector table{};
    ImageHeader header{};
    RootTable root{};
    MapBlock level1{}, level2{};
    LeafBlock leaf{};
    std::uint32_t damage = 0;
};

}  // namespace

TEST_F(LocalDisk, First_sector_is_the_images_whether_its_sectors_are_shifted_or_not)
{
    EXPECT_EQ(booted(), content);
    header.Sec_Shift.set(0);
    EXPECT_EQ(booted(), -1) << "map sector 1 is absent";
    leaf.Chunk[0].SecFlag[0] = 2;
    EXPECT_EQ(booted(), content + 1);
}

TEST_F(LocalDisk, Nothing_is_booted_from_an_image_that_is_damaged_or_lacks_the_sector)
{
    const auto expect_nothing = [this](Le32& field, std::uint32_t value) {
        const Le32 before = std::exchange(field, Le32{});
        field.set(value);
        EXPECT_EQ(booted(), -1) << value;
        field = before;
    };
    expect_nothing(leaf.Chunk[0].ModifyTag, 0);
    expect_nothing(leaf.Chunk[0].Data_Sec, 0);
    expect_nothing(leaf.Chunk[0].Data_Sec, system_sectors);
    expect_nothing(leaf.Chunk[0].Data_Sec, 0xFFFFFFFF);
    for (Le32* link : {&root.Level1_Sec[0], &level1.Next_Sec[0], &level2.Next_Sec[0]}) {
        expect_nothing(*link, 0);
        expect_nothing(*link, system_sectors - map_block_sectors + 1);
        expect_nothing(*link, 0xFFFFFFF8);
    }
    expect_nothing(header.Used, root_sector);
    damage = 1;
    EXPECT_EQ(booted(), -1);
}

TEST_F(LocalDisk, Disk_that_cannot_hold_the_images_is_refused)
{
    EXPECT_FALSE((write(), LocalDiskFile(path).has_temporary_image()));
    table.Partition[3] = table.Partition[1];
    table.Partition[3].Type = partition_temporary_image;
    table.Partition[3].Start.set(system_start + system_sectors);
    EXPECT_TRUE((write(), LocalDiskFile(path).has_temporary_image()));
    {
        const LocalDiskFile held(path);
        EXPECT_THROW(LocalDiskFile{path}, std::runtime_error) << "two stations on one disk";
    }
    table.Partition[3].Start.set(system_start + system_sectors - 1);
    expect_refusal("overlaps another one");
    table.Partition[3].Start.set(system_start + system_sectors);
    table.Partition[3].Count.set(disk_sectors - system_start - system_sectors + 1);
    expect_refusal("too small");
    table.Partition[3].Count.set(0xFFFFFFFF);
    expect_refusal("too small");
    table.Partition[3] = {};
    table.Partition[1].Type = 0x07;
    expect_refusal("no partition of type 51");
    table.Signature.set(0);
    expect_refusal("no partition table");
    std::filesystem::resize_file(path, 511);
    EXPECT_THROW(LocalDiskFile{path}, std::runtime_error);
}

TEST(LocalBoot, Block_counts_the_local_disk_and_the_descriptor_leads_to_the_sector)
{
    Boot_Param block{};
    block.Lun_Nums = block.Disk_Nums = 2;
    const Boot_Param local = local_boot_block(block, true);
    EXPECT_EQ(local.Boot_Mode.get(), boot_mode_local_image);
    EXPECT_EQ(local.Disk_Nums - local.Local_Nums, local.Lun_Nums);
    EXPECT_EQ(local.Local_Nums, 1);
    EXPECT_EQ(local.Boot_Flags, 0);
    EXPECT_EQ(local_boot_block(local, false).Boot_Flags, boot_flag_no_image_sync);
    EXPECT_EQ(local_boot_block(local, true).Disk_Nums, 3) << "counted twice";
    EXPECT_EQ(local_disk_number(local), 2u);

    Sector sector;
    sector.fill(content);
    const auto bytes = image_descriptor(sector);
    const std::size_t place = 3u + bytes[1] + bytes[2] * 256u;
    ASSERT_EQ(bytes.size(), place + sector.size());
    EXPECT_EQ(std::memcmp(bytes.data() + 4, "QRNH\x44\x10\0\0", 8), 0);
    EXPECT_EQ(std::memcmp(bytes.data() + place, sector.data(), sector.size()), 0);
}
