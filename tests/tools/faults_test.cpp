// SPDX-License-Identifier: MIT
// Areas that are not as they should be.
#include "tests/seeds.h"
#include "tests/tools/tool_test.h"

namespace tools_test {
namespace {

// Blocks of the area: root 8, level 1 at 16, level 2 at 24, leaves at 32 (chunks from 0), 296 (from 128)
// and 432 (from 256); data of chunk 0 at 40, 1 at 168, 200 at 304, 299 at 440.
class Faults : public ToolTest {
protected:
    Faults()
    {
        make_raw("raw", 300 * 128 - 28, {{0, 100}, {1, 100}, {200, 100}, {299, 100}});
        EXPECT_EQ(run("create @area --from @raw").status, 0);
        good_ = content("area");
    }
    void restore() { put("area", 0, good_); }

    std::string good_;
};

constexpr std::uint64_t root = 8 * 512, level1 = 16 * 512, level2 = 24 * 512, leaf = 32 * 512,
                        last_leaf = 432 * 512, last_entry = last_leaf + (299 - 256) * 32;

TEST_F(Faults, Check_finds_and_names_each)
{
    const struct {
        std::uint64_t offset;
        std::uint32_t value;
        const char* text;
    } cases[] = {
        {0, 79, "Head_Len is 79"},
        {4, 0, "no 'QRNMDISK'"},
        {30, 0, "Size is 0"},
        {30, 300 * 128 - 29, "flag past the disk's end: chunk key 0000012B, sector 99"},
        {30, 1000, "chunk past the disk's end: chunk key 000000C8"},
        {50, 5, "Hdr_Type is 5"},
        {70, 0, "ModifyTag is 0"},
        {248, 300, "Sync_Pos is 300"},
        {512, 0, "no 'CmpssFl' tag"},
        {1020, 0xAA550000, "boot sector"},
        {524, 512, "Blk_Size is 512"},
        {528, 512, "Chunk_Size is 512"},
        {532, 16, "Root_Sec is 16"},
        {536, 0, "Used is 0"},
        {536, 441, "Used is 441: no block ends there"},
        {536, 576, "Used is 576, and the area has 568 sectors"},
        {536, 440, "past Used: data block at sector 440 for chunk key 0000012B"},
        {536, 0xFFFFFFF8, "the area has 568"},
        {544, 16, "Map_Secs 16 and Used 568 do not add up"},
        {544, 0xFFFFFFB0, "do not add up"},
        {544, 48 + 128, "3 data blocks were handed out, and the map has 4"},
        {root, 8, "no block can start there: level-1 block at sector 8 for chunk key 00000000"},
        {root, 20, "no block can start there: level-1 block at sector 20"},
        {root + 4 * 64, 16,
         "overlaps a block that has its place in the map already: level-1 block at sector 16 for chunk key "
         "80000000"},
        {root, 568, "past the end of the area: level-1 block at sector 568"},
        {root, 0xFFFFFFF8, "past the end of the area: level-1"},
        {level1, 16, "overlaps"},
        {level1 + 4 * 256, 24, "no key leads to it: entry 256 of the level-1 block under root entry 0"},
        {level2, 24,
         "overlaps a block that has its place in the map already: leaf block at sector 24 for chunk key "
         "00000000"},
        {level2, 432,
         "overlaps a block that has its place in the map already: leaf block at sector 432 for chunk key "
         "00000100"},
        {level2 + 4 * 1023, 560,
         "overlaps a block that has its place in the map already: leaf block at sector 560 for chunk key "
         "0001FF80"},
        {leaf, 0, "entry without a data block: chunk key 00000000: data at 0, tag 00000001, 128 sectors"},
        {leaf, 296, "overlaps"},
        {leaf, 448, "past the end of the area: data block at sector 448"},
        {leaf + 32, 40,
         "overlaps a block that has its place in the map already: data block at sector 40 for chunk key "
         "00000001"},
        {leaf + 4, 0, "flags set in a chunk of tag 0: chunk key 00000000"},
        {leaf + 12, 1, "reserved bytes of an entry"},
        {last_entry + 28, 0xFF, "flag past the disk's end: chunk key 0000012B, sector 100"},
    };
    for (const auto& one : cases) {
        put32("area", one.offset, one.value);
        renew_checksum("area");
        expect("check @area", 1, one.text);
        restore();
    }
    put32("area", 74, 1);
    expect("check @area", 1, "ChkSum is 00000001, and should be");
    expect("extract @area --to @back", 2, "the checksum of the header is 00000001");
    restore();
    put("area", 42, std::string(8, '\0'));
    renew_checksum("area");
    expect("check @area", 1, "CreateTime is 0");
    restore();
    put32("area", leaf, 440);
    put32("area", last_entry, 40);
    expect("check @area", 1,
           "lies before the block that names it: data block at sector 40 for chunk key 0000012B");
    expect("extract @area --to @back", 0);
    restore();
    expect("check @area", 0);
}

TEST_F(Faults, Blocks_that_a_power_loss_left_outside_the_map_are_no_fault)
{
    put("area", last_entry, std::string(32, '\0'));
    expect("check @area", 0, "remark: 1 data blocks were handed out and are not in the map");
    put32("area", level2 + 8, 0);
    expect("check @area", 0, "remark: 1 map blocks were handed out and are not in the map");
    put32("area", 536, 8);
    put32("area", 544, 0);
    expect("check @area", 0, "remark: the area is new");
    expect("extract @area --to @back", 1, "38372 of 38372 sectors (100.0 %) are not there");
    expect("extract @area --to @back --allow-absent", 0, "38372 of them absent");
}

TEST_F(Faults, Many_faults_of_a_kind_are_counted_and_not_all_listed)
{
    for (unsigned i = 0; i < 100; ++i)
        put32("area", leaf + i * 32, 20 + i * 8);
    const Result result = run("check @area");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.text.find("and 92 more"), std::string::npos) << result.text;
    EXPECT_LT(std::count(result.text.begin(), result.text.end(), '\n'), 30);
}

TEST_F(Faults, Truncated_areas_are_told_at_every_length)
{
    for (std::uint64_t sectors = 568; sectors-- > 0;) {
        if (sanitized && sectors > 40 && sectors % 8 != 0)
            continue;
        std::filesystem::resize_file(path("area"), sectors * 512);
        SCOPED_TRACE(sectors);
        expect("check @area", 1,
               sectors < 2 ? "ends inside its header" : "the area has " + std::to_string(sectors));
        for (const char* command : {"extract @area --to @back", "map @area"})
            expect(command, 2);
        expect("info @area", sectors < 2 ? 2 : 0);
        // What ends inside its header may be a raw disk.
        expect("diff @area @raw", sectors == 1 ? 1 : 2);
    }
}

TEST_F(Faults, Damaged_bytes_never_mislead_the_walk)
{
    const std::uint64_t size = good_.size();
    const std::uint64_t blocks[] = {0, 512, root, level1, level2, leaf, 296 * 512, last_leaf};
    for (unsigned seed = 0; seed < seeds_of(1500); ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        for (unsigned changes = 1 + random_() % 4; changes != 0; --changes) {
            const std::uint64_t block = blocks[random_() % std::size(blocks)];
            const std::uint64_t offset =
                std::min(block + random_() % (random_() % 2 != 0 ? 64 : 4096) / 4 * 4, size - 4);
            const bool is_near = random_() % 4 != 0;
            put32("area", offset, static_cast<std::uint32_t>(is_near ? random_() % 80 * 8 : random_()));
        }
        put32("area", 30, 300 * 128 - 28);
        renew_checksum("area");
        const int checked = run("check @area").status;
        const int extracted = run("extract @area --to @back --force --allow-absent").status;
        const int drawn = run("map @area").status;
        EXPECT_TRUE(checked == 0 || checked == 1);
        EXPECT_EQ(extracted, drawn);
        if (checked == 0) {
            EXPECT_EQ(extracted, 0);
            EXPECT_EQ(run("diff @area @back").status, 0);
        }
        restore();
    }
}

}  // namespace
}  // namespace tools_test
