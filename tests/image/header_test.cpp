// SPDX-License-Identifier: MIT
// Opening an image area: which headers are believed, what is made new, and what is allocated.
#include "tests/image/memory_area.h"

using namespace image_test;
using formats::ImageHeader;

namespace {

constexpr ULONG area_sectors = 1000;

ImageHeader& header_of(Area& bytes)
{
    return *reinterpret_cast<ImageHeader*>(bytes.data());
}

// An image with a chunk in it, as a run of the synchronisation leaves it.
Area good_image()
{
    MemoryArea area(area_sectors);
    EXPECT_EQ(area.open(0), 0);
    QRNH_IMG_RW disk(&area, 0);
    std::vector<UCHAR> data(512);
    put_sector(data.data(), 0, 1, 7);
    EXPECT_EQ(disk.Write(0, 1, data.data(), 512), 512);
    EXPECT_TRUE(disk.Img_Flush());
    return area.now;
}

TEST(Header, Only_sound_headers_are_believed)
{
    DriverPiece driver;
    driver.run([&] {
        const Area good = good_image();
        struct Row {
            const char* name;
            std::function<void(ImageHeader&)> change;
            bool sum;  // made right again
            LONG result;
            const char* printed;
        };
        const std::vector<Row> rows = {
            {"as written", [](ImageHeader&) {}, false, 6, "\nQRNH_Header: Size="},
            {"other magic", [](ImageHeader& h) { h.Magic[0] = 'X'; }, true, 6, "Used="},
            {"nothing summed",
             [](ImageHeader& h) {
                 std::memset(&h, 0, formats::image_checksum_offset);
                 h.ChkSum.set(0xFFFFFFFF);
             },
             false, 6, "ChkSum=FFFFFFFF "},
            {"sum of nothing as 0",
             [](ImageHeader& h) { std::memset(&h, 0, formats::image_checksum_offset + 4); }, false, -2,
             "Real ChkSum=FFFFFFFF ERROR!"},
            {"flipped bit", [](ImageHeader& h) { h.Hdr_Type.set(7); }, false, -2, "ERROR!"},
            {"no tag", [](ImageHeader& h) { h.CmpssFl[3] = 'S'; }, true, -2, "'CmpssFl' Make Error"},
            {"boot sector", [](ImageHeader& h) { h.Signature.set(0xAA55); }, true, -2,
             "'CmpssFl' Make Error"},
            {"allocator in the root table", [](ImageHeader& h) { h.Used.set(12); }, true, -2, "Make Error"},
        };
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            MemoryArea area(good, 1);
            row.change(header_of(area.now));
            if (row.sum)
                header_of(area.now).ChkSum.set(formats::image_checksum(area.now.data()));
            driver.machine.log().clear();
            EXPECT_EQ(area.open(Img_Modify | Img_Must_Exist), row.result);
            EXPECT_NE(driver.machine.log().text().find(row.printed), std::string::npos)
                << driver.machine.log().text();
            EXPECT_TRUE(area.writes.empty()) << "an image that must exist is not changed";

            MemoryArea own(area.now, 1);
            EXPECT_EQ(own.open(0), 0);
            EXPECT_EQ(driver.machine.log().text().ends_with("\nQRNH_Header_New"), row.result < 0);
            EXPECT_EQ(own.Header.Used.get(), row.result < 0 ? 16u : 16u + 3 * 8 + 128);
            EXPECT_EQ(AreaReader(own.now).read().header != nullptr, row.result >= 0) << "no header yet";
        }
    });
}

TEST(Header, Image_that_cannot_be_read_is_neither_believed_nor_destroyed)
{
    DriverPiece driver;
    driver.run([] {
        const Area good = good_image();
        for (ULONG bad : {0u, 8u}) {
            MemoryArea area(good, 1);
            area.bad = {bad};
            EXPECT_EQ(area.open(0), 0);
            area.bad = {};
            QRNH_IMG_RW disk(&area, 0);
            std::vector<UCHAR> data(512);
            EXPECT_EQ(disk.Read(0, 1, data.data(), 512), Img_Failed) << "sector " << bad;
            EXPECT_EQ(disk.Write(0, 1, data.data(), 512), -512);
            EXPECT_FALSE(disk.Img_Flush());
            EXPECT_EQ(area.now, good);
            MemoryArea server(good, 1);
            server.bad = {bad};
            EXPECT_EQ(server.open(Img_Modify | Img_Must_Exist), -2);
        }
    });
}

TEST(Header, Modifying_open_counts_and_refuses_to_wrap)
{
    DriverPiece driver;
    driver.run([&] {
        Area image = good_image();
        header_of(image).Sync_Pos.set(5);
        MemoryArea area(image, 1);
        EXPECT_EQ(area.open(Img_Modify), LONG{Img_Modify});
        EXPECT_EQ(area.Header.ModifyTag.get(), 2u);
        EXPECT_EQ(area.Header.Sync_Pos.get(), 0u);
        EXPECT_EQ(area.Header.Prev_Time.get(), header_of(image).Modify_Time.get());
        header_of(image).ModifyTag.set(0xFFFFFFFF);
        header_of(image).ChkSum.set(formats::image_checksum(image.data()));
        MemoryArea last(image, 1);
        EXPECT_EQ(last.open(Img_Modify), -3);
        EXPECT_EQ(driver.machine.log().count("Need Rebuild All ModifyTag And CreateTime"), 1u);
    });
}

TEST(Header, Pointers_out_of_the_area_are_not_followed)
{
    DriverPiece driver;
    driver.run([] {
        const Area good = good_image();
        for (ULONG sector : {1u, 8u, 15u, 16u + 3 * 8 + 128 - 7, 999u, 0xFFFFFFFFu}) {
            for (ULONG table : {8u, 16u, 24u, 32u}) {  // root table, level 1, level 2, leaf
                MemoryArea area(good, 1);
                reinterpret_cast<formats::Le32*>(&area.now[table * 512])->set(sector);
                EXPECT_EQ(area.open(0), 0);
                QRNH_IMG_RW disk(&area, 0);
                std::vector<UCHAR> data(512);
                EXPECT_EQ(disk.Read(0, 1, data.data(), 512), Img_Failed) << table << " names " << sector;
                EXPECT_EQ(disk.Write(0, 1, data.data(), 512), -512) << table << " names " << sector;
                EXPECT_TRUE(area.writes.empty());
            }
        }
    });
}

}  // namespace
