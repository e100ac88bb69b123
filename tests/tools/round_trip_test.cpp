// SPDX-License-Identifier: MIT
// Raw disk to area and back.
#include <ctime>

#include "tests/tools/tool_test.h"

namespace tools_test {
namespace {

class RoundTrip : public ToolTest {
protected:
    std::uint32_t chunks_present(const std::string& area)
    {
        unsigned present = 0;
        const std::string text = run("check @" + area).text;
        EXPECT_EQ(std::sscanf(text.substr(text.find("clean")).c_str(), "clean, %u", &present), 1) << text;
        return present;
    }
};

TEST_F(RoundTrip, Disks_of_any_size_come_back_as_they_were)
{
    const struct {
        std::uint64_t sectors;
        std::vector<Noise> noises;
        std::uint32_t chunks;
    } cases[] = {
        {1, {{0, 1}}, 1},
        {1, {}, 1},  // the last chunk is there in any case
        {127, {{0, 127}}, 1},
        {128, {{0, 128}}, 1},
        {129, {{0, 128}, {1, 1}}, 2},
        {129, {{0, 128}}, 2},  // sector 127 of chunk 0 travels with chunk 1
        {129, {{0, 127}}, 2},
        {385, {{0, 127}}, 2},
        {129, {{1, 1}}, 1},
        {1000, {{3, 128}, {7, 5}}, 3},
        {128 * 300, {{0, 128}, {1, 1}, {127, 128}, {128, 128}, {255, 3}, {299, 128}}, 7},
        // Chunks under another level-2 and another level-1 entry.
        {(128ull << 24) - 1, {{1023, 1}, {128 << 10, 1}, {(128 << 10) + 5, 2}, {(1 << 24) - 1, 127}}, 4},
    };
    for (const auto& one : cases) {
        make_raw("raw", one.sectors, one.noises);
        expect("create @area --from @raw --force", 0);
        EXPECT_EQ(chunks_present("area"), one.chunks) << one.sectors;
        expect("extract @area --to @back --force", 0, std::to_string(one.sectors) + " sectors");
        expect("diff @area @raw", 0);
        expect("diff @back @area", 0);
        EXPECT_EQ(std::filesystem::file_size(path("back")), one.sectors * sector_bytes);
        if (one.sectors < 1 << 20) {
            EXPECT_TRUE(content("back") == content("raw")) << one.sectors;
        }
    }
}

TEST_F(RoundTrip, Area_is_what_a_workstation_accepts_as_its_servers_image)
{
    make_raw("raw", 200, {{0, 1}, {1, 72}});
    setenv("TZ", "LCL-02:30", 1);
    tzset();
    expect("create @area --from @raw --tag 305419896", 0);
    const auto at = [&](std::uint64_t offset) { return get<std::uint32_t>("area", offset); };
    EXPECT_EQ(at(0), 78u);
    EXPECT_EQ(content("area").substr(4, 9), std::string("QRNMDISK\0", 9));
    EXPECT_EQ(at(30), 200u);
    EXPECT_EQ(at(50), 6u);
    EXPECT_EQ(at(70), 0x12345678u);
    EXPECT_EQ(at(244), 0u) << "Sync_Tag";
    EXPECT_EQ(at(248), 0u) << "Sync_Pos";
    EXPECT_EQ(content("area").substr(512, 8), std::string("CmpssFl\0", 8));
    EXPECT_EQ(at(520), 1u) << "Sec_Shift";
    EXPECT_EQ(at(536), 296u) << "Used";
    EXPECT_EQ(at(544), 32u) << "Map_Secs";
    std::uint32_t sum = 0;
    for (const char byte : content("area").substr(0, 74))
        sum += static_cast<std::uint8_t>(byte);
    EXPECT_EQ(at(74), sum);

    const auto created = get<std::uint64_t>("area", 42);
    EXPECT_EQ(get<std::uint64_t>("area", 22), created);
    const auto age_s =
        std::time(nullptr) + 9000 + 11'644'473'600 - static_cast<std::int64_t>(created / 10'000'000);
    EXPECT_LE(std::abs(age_s), 60);

    EXPECT_EQ(at(8 * 512), 16u) << "root";
    EXPECT_EQ(at(16 * 512), 24u) << "level 1";
    EXPECT_EQ(at(24 * 512), 32u) << "level 2";
    EXPECT_EQ(at(32 * 512), 40u) << "data of chunk 0";
    EXPECT_EQ(at(32 * 512 + 4), 0x12345678u);
    EXPECT_EQ(content("area").substr(32 * 512 + 16, 16), std::string(16, '\xFF'));
    EXPECT_EQ(at(32 * 512 + 32), 168u) << "data of chunk 1";
    EXPECT_EQ(content("area").substr(32 * 512 + 48, 16), std::string(9, '\xFF') + std::string(7, '\0'));
    EXPECT_EQ(content("area").size(), 296u * 512);
}

TEST_F(RoundTrip, Absent_sectors_are_counted_and_become_zeros)
{
    make_raw("raw", 300, {{0, 128}, {1, 100}, {2, 44}});
    expect("create @area --from @raw", 0);
    // Sectors 3 to 7 of chunk 0 are not present, whatever is in their place.
    put("area", 32 * 512 + 16, "\x07");
    expect("check @area", 0, "295 sectors");
    expect("extract @area --to @back", 1, "5 of 300 sectors (1.7 %) are not there");
    EXPECT_FALSE(std::filesystem::exists(path("back")));
    expect("extract @area --to @back --allow-absent", 0, "300 sectors, 5 of them absent");
    std::string expected = content("raw");
    expected.replace(3 * 512, 5 * 512, 5 * 512, '\0');
    EXPECT_TRUE(content("back") == expected);
    expect("diff @area @raw", 1,
           "sectors 3-7 (chunks 0-0) are only in the second\n5 sectors differ, in 1 chunks");
    expect("diff @area @back", 0);
    expect("map @area --ascii", 0, "\n        0 *##\n          one cell");
    expect("map @area", 0, "3 of 3 chunks, 2 of them whole; 295 sectors present");
}

TEST_F(RoundTrip, Without_Sec_Shift_the_first_map_sector_is_no_sector_of_the_disk)
{
    make_raw("raw", 500, {{0, 128}, {3, 116}});
    expect("create @area --from @raw", 0);
    put32("area", 520, 0);
    expect("check @area", 0);
    expect("extract @area --to @back", 1, "1 of 500 sectors");
    expect("extract @area --to @back --allow-absent", 0, "500 sectors, 129 of them absent");
    EXPECT_TRUE(content("back") == content("raw").substr(512) + std::string(512, '\0'));
    expect("diff @area @back", 0);
    expect("diff @area @raw", 1);
}

TEST_F(RoundTrip, A_map_can_hold_several_disks)
{
    make_raw("raw", 500, {{0, 128}, {3, 1}});
    expect("create @area --from @raw", 0);
    put32("area", 8 * 512, 0);
    put32("area", 8 * 512 + 32 * 4, 16);  // the root entry of LUN 2
    expect("check @area", 0);
    expect("map @area", 0, "LUN 2: 3 of 4 chunks");
    expect("extract @area --to @lun0", 2, "holds nothing of LUN 0; it has LUN 2");
    expect("extract @area --to @lun2 --lun 2", 0, "128 of them absent");
    EXPECT_TRUE(content("lun2") == content("raw"));
    expect("diff @area @raw --lun 2", 0);
    expect("diff @area @raw --lun 1", 2, "holds nothing of LUN 1; it has LUN 2");
}

TEST_F(RoundTrip, Differences_are_listed_as_runs_of_sectors)
{
    make_raw("a.raw", 1000, {{0, 20}, {2, 128}, {3, 10}});
    expect("create @a --from @a.raw", 0);
    std::string bytes = content("a.raw");
    for (const std::size_t sector : {19, 383, 384, 700})
        bytes[sector * 512 + 511] ^= 1;
    std::ofstream(path("b.raw"), std::ios::binary) << bytes;
    expect("create @b --from @b.raw", 0);
    expect("diff @a @b", 1,
           "sectors 19-19 (chunks 0-0) differ\nsectors 383-384 (chunks 2-3) differ\n"
           "sectors 700-700 (chunks 5-5) are only in the second\n4 sectors differ, in 4 chunks\n");
    std::filesystem::resize_file(path("a.raw"), 1001 * 512);
    expect("diff @a.raw @a", 1, "sizes differ: 1001 and 1000 sectors\n0 sectors differ");
    expect("compare @a.raw @b.raw", 1, "sizes differ: 1001 and 1000 sectors\nsectors 19-19");
}

}  // namespace
}  // namespace tools_test
