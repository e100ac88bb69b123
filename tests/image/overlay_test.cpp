// SPDX-License-Identifier: MIT
// The image block objects of several LUNs over one temporary image: single rules, then writers and readers at
// random over a disk that fails, with the newest content of every sector known.
#include <array>
#include <memory>

#include "tests/image/memory_area.h"
#include "tests/seeds.h"

using namespace image_test;

namespace {

constexpr ULONG sectors_per_disk = 600;

struct Overlay {
    explicit Overlay(ULONG area_sectors, std::uint64_t seed = 1) : area(area_sectors, seed)
    {
        EXPECT_EQ(area.open(Img_Always_New), LONG{Img_Always_New});
        for (ULONG lun = 0; lun < 3; ++lun)
            disk[lun] = std::make_unique<QRNH_IMG_RW>(&area, lun);
    }

    LONG write(ULONG lun, ULONG sector, ULONG count, ULONG version)
    {
        std::vector<UCHAR> data(count * 512);
        for (ULONG i = 0; i < count; ++i)
            put_sector(&data[i * 512], lun, sector + i, version);
        return disk[lun]->Write(lun, sector, data.data(), static_cast<LONG>(data.size()));
    }
    LONG read(ULONG lun, ULONG sector, ULONG count)
    {
        data.assign(count * 512, 0xEE);
        return disk[lun]->Read(lun, sector, data.data(), static_cast<LONG>(data.size()));
    }
    ULONG version(ULONG lun, ULONG first, ULONG sector) const
    {
        return version_of(&data[(sector - first) * 512], lun, sector);
    }

    MemoryArea area;
    std::array<std::unique_ptr<QRNH_IMG_RW>, 3> disk;
    std::vector<UCHAR> data;
};

TEST(Overlay, Runs_are_merged_where_their_blocks_follow_one_another)
{
    DriverPiece driver;
    driver.run([] {
        Overlay overlay(2000);
        EXPECT_EQ(overlay.read(1, 100, 300), -300 * 512) << "nothing is present";
        overlay.area.writes.clear();
        // LBA 64 to 191: the second half of one chunk, and the first half of the next, right behind it.
        EXPECT_EQ(overlay.write(0, 65, 128, 1), 65536);
        EXPECT_EQ(overlay.area.writes.size(), 2u) << "the root table, and one run";
        EXPECT_EQ(overlay.write(1, 1, 3, 1), 3 * 512);
        EXPECT_EQ(overlay.write(0, 257, 1, 1), 512) << "its block is not behind the second one";
        EXPECT_EQ(overlay.write(0, 193, 65, 2), 65 * 512);

        EXPECT_EQ(overlay.read(0, 1, 128), -64 * 512);
        EXPECT_EQ(overlay.read(0, 60, 10), -5 * 512);
        EXPECT_EQ(overlay.read(0, 65, 128), 128 * 512);
        for (ULONG sector = 65; sector < 193; ++sector)
            ASSERT_EQ(overlay.version(0, 65, sector), 1u);
        EXPECT_EQ(overlay.read(0, 257, 20), 1 * 512);
        EXPECT_EQ(overlay.version(0, 257, 257), 2u);
        EXPECT_EQ(overlay.read(0, 258, 200), -200 * 512) << "across absent chunks";
        EXPECT_EQ(overlay.read(1, 1, 8), 3 * 512);
        EXPECT_EQ(overlay.read(1, 4, 8), -8 * 512);
        // Engine sector 0 and 1 are the same place.
        EXPECT_EQ(overlay.read(1, 0, 1), 512);
        EXPECT_EQ(overlay.version(1, 1, 1), 1u);
    });
}

TEST(Overlay, Failed_transfers_are_told_apart_from_missing_sectors)
{
    DriverPiece driver;
    driver.run([] {
        Overlay overlay(4000);
        EXPECT_EQ(overlay.write(0, 1, 128, 1), 65536);
        const ULONG data = 16 + 3 * 8;
        overlay.area.bad = {data + 20};
        EXPECT_EQ(overlay.read(0, 10, 5), 5 * 512);
        EXPECT_EQ(overlay.read(0, 10, 30), Img_Failed);
        EXPECT_EQ(overlay.write(0, 10, 30, 2), -30 * 512);
        overlay.area.bad.insert(data + 128 + 2);
        EXPECT_EQ(overlay.write(0, 129, 5, 2), -5 * 512);
        EXPECT_EQ(overlay.read(0, 129, 5), -5 * 512) << "flags of what never came to the disk";
        EXPECT_EQ(overlay.read(0, 50, 5), 5 * 512);
        EXPECT_EQ(overlay.version(0, 50, 50), 1u);
        EXPECT_TRUE(overlay.disk[0]->Forget(10, 30 * 512));
        EXPECT_EQ(overlay.read(0, 9, 30), 512);
        EXPECT_EQ(overlay.read(0, 10, 60), -30 * 512) << "what went elsewhere is missing here";
        EXPECT_EQ(overlay.read(0, 40, 30), 30 * 512);

        // Two more leaf blocks put the first one out; then it cannot be read, and nothing of it be told.
        overlay.area.bad = {};
        EXPECT_EQ(overlay.write(0, 128 * 128 + 1, 1, 1), 512);
        EXPECT_EQ(overlay.write(0, 2 * 128 * 128 + 1, 1, 1), 512);
        overlay.area.bad = {32};
        EXPECT_EQ(overlay.read(0, 40, 30), Img_Failed);
        EXPECT_EQ(overlay.write(0, 40, 30, 3), -30 * 512);
        EXPECT_FALSE(overlay.disk[0]->Forget(40, 30 * 512));
        EXPECT_EQ(overlay.read(0, 128 * 128 + 1, 1), 512);
        overlay.area.bad = {};
        EXPECT_EQ(overlay.read(0, 40, 30), 30 * 512) << "its buffer did not pass for the block";
    });
}

TEST(Overlay, Map_block_that_cannot_be_written_takes_no_other_with_it)
{
    constexpr ULONG leaf_sectors = 128 * 128;
    DriverPiece driver;
    driver.run([] {
        Overlay overlay(4000);
        EXPECT_EQ(overlay.write(0, 1, 8, 1), 8 * 512);
        overlay.area.bad = {32};
        for (ULONG leaf = 1; leaf < 5; ++leaf)
            EXPECT_EQ(overlay.write(0, leaf * leaf_sectors + 1, 8, leaf), 8 * 512) << leaf;
        for (ULONG leaf = 0; leaf < 5; ++leaf) {
            EXPECT_EQ(overlay.read(0, leaf * leaf_sectors + 1, 8), 8 * 512) << leaf;
            EXPECT_EQ(overlay.version(0, leaf * leaf_sectors + 1, leaf * leaf_sectors + 8), leaf ? leaf : 1);
        }
        EXPECT_FALSE(overlay.disk[0]->Img_Flush());
        overlay.area.bad = {};
        EXPECT_TRUE(overlay.disk[0]->Img_Flush()) << "it stayed in its buffer";
    });
}

// A workstation's disk that only one thread uses: what each of its sectors may hold is known. Version 0:
// missing.
class KnownDisk {
public:
    KnownDisk(Overlay& overlay, ULONG lun, std::uint64_t seed) : overlay_(overlay), lun_(lun), random_(seed)
    {
    }

    void step(ULONG version)
    {
        // Four regions of 8 MB, each with a leaf block of its own.
        const ULONG first = random_.below(4) * 128 * 128 + random_.below(sectors_per_disk) + 1;
        const ULONG count = 1 + random_.below(128);
        if (random_.chance(0.5))
            write(first, count, version);
        else
            read(first, count);
    }
    void read_all()
    {
        for (ULONG sector = 1; sector < 4 * 128 * 128; sector += 64)
            read(sector, 64);
    }

    unsigned refused = 0, failed = 0;

private:
    // As a worker routes it: what is refused goes elsewhere, and is forgotten here.
    void write(ULONG first, ULONG count, ULONG version)
    {
        std::vector<UCHAR> data(count * 512);
        for (ULONG i = 0; i < count; ++i)
            put_sector(&data[i * 512], lun_, first + i, version);
        for (ULONG done = 0; done < count;) {
            QRNH_IMG_RW& disk = *overlay_.disk[lun_];
            const ULONG at = first + done;
            const LONG result =
                disk.Write(lun_, at, &data[done * 512], static_cast<LONG>((count - done) * 512));
            ASSERT_NE(result, 0);
            ASSERT_EQ(result % 512, 0);
            const ULONG sectors = static_cast<ULONG>(result > 0 ? result : -result) / 512;
            ASSERT_LE(sectors, count - done);
            const bool gone = result < 0 && disk.Forget(at, -result);
            refused += result < 0;
            for (ULONG i = 0; i < sectors; ++i)
                if (result > 0)
                    allowed_[at + i] = {version};
                else if (gone)
                    allowed_[at + i] = {0};
                else
                    allowed(at + i).insert(version);  // the request fails; it may have happened
            done += sectors;
        }
    }
    void read(ULONG first, ULONG count)
    {
        std::vector<UCHAR> data(count * 512);
        const LONG result =
            overlay_.disk[lun_]->Read(lun_, first, data.data(), static_cast<LONG>(data.size()));
        ASSERT_NE(result, 0);
        if (result == Img_Failed) {
            ++failed;
            return;
        }
        for (ULONG i = 0; i < static_cast<ULONG>(result > 0 ? result : -result) / 512; ++i) {
            const ULONG version = result > 0 ? version_of(&data[i * 512], lun_, first + i) : 0;
            ASSERT_TRUE(allowed(first + i).contains(version) && (result < 0 || version != 0))
                << "LUN " << lun_ << " sector " << first + i << " version " << version;
        }
    }
    std::set<ULONG>& allowed(ULONG sector)
    {
        return allowed_.try_emplace(sector, std::set<ULONG>{0}).first->second;
    }

    Overlay& overlay_;
    ULONG lun_;
    machine::Random random_;
    std::map<ULONG, std::set<ULONG>> allowed_;
};

TEST(Overlay, Newest_data_or_none_is_read_whatever_the_disk_does)
{
    unsigned refused = 0, failed = 0;
    for (std::uint64_t seed = 1; seed <= seeds_of(24) && !::testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        machine::MachineConfig config;
        config.seed = seed;
        DriverPiece driver(config);
        driver.run([&] {
            Overlay overlay(seed % 4 == 0 ? 3000 : 12000, seed);
            overlay.area.yields = true;
            std::vector<KnownDisk> disks;
            for (ULONG lun = 0; lun < 3; ++lun)
                disks.emplace_back(overlay, lun, seed * 8 + lun);
            overlay.area.failures = seed % 2 ? 0.05 : 0;
            machine::test::run_threads(3, [&](int thread) {
                for (ULONG version = 1; version <= 200; ++version)
                    disks[static_cast<unsigned>(thread)].step(version);
            });
            overlay.area.failures = 0;
            overlay.area.yields = false;
            for (KnownDisk& disk : disks) {
                failed += disk.failed;
                disk.failed = 0;
                disk.read_all();
                EXPECT_EQ(disk.failed, 0u) << "a disk that works again";
                refused += disk.refused;
            }
        });
    }
    EXPECT_GT(refused, 4 * seeds_of(24));
    EXPECT_GT(failed, 4 * seeds_of(24));
}

}  // namespace
