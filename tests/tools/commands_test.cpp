// SPDX-License-Identifier: MIT
// What commands refuse before they write, and those that change what is there.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <map>

#include <nlohmann/json.hpp>

#include "tests/seeds.h"
#include "tests/tools/tool_test.h"
#include "tools/size_text.h"

namespace tools_test {
namespace {

constexpr std::uint64_t leaf = 32 * 512;  // of the first chunks of an area

class Commands : public ToolTest {
protected:
    nlohmann::json json(const std::string& command, int status = 0)
    {
        const Result result = run(command + " --output json");
        EXPECT_EQ(result.status, status) << command << "\n" << result.text;
        return nlohmann::json::parse(result.text, nullptr, false);
    }
    // As a server or a workstation does.
    int lock(const std::string& name, int kind)
    {
        const int fd = open(path(name).c_str(), O_RDWR);
        EXPECT_EQ(flock(fd, kind | LOCK_NB), 0);
        return fd;
    }
    // A workstation's copy that got as far as this chunk in its first run.
    void make_half_filled(const std::string& name, std::uint32_t position)
    {
        put32(name, 248, position);
        put32(name, 244, 1);
        renew_checksum(name);
    }
};

TEST_F(Commands, Sizes_are_read_as_people_write_them)
{
    const struct {
        const char* text;
        std::uint64_t bytes;  // 0: no size
    } cases[] = {{"512", 512},
                 {"500m", 500ull << 20},
                 {"2.5T", 5ull << 39},
                 {"1.5k", 1536},
                 {"4KiB", 4096},
                 {"4kb", 4096},
                 {"0.1G", 107374080},  // whole sectors
                 {"0.5T", 1ull << 39},
                 {"0", 0},
                 {"0.0G", 0},
                 {"1.5", 0},
                 {"1.", 0},
                 {"1.G", 0},
                 {".5G", 0},
                 {"-1G", 0},
                 {"1X", 0},
                 {"1GG", 0},
                 {"1iB", 0},
                 {"16777216T", 0},
                 {"", 0}};
    for (const auto& one : cases)
        EXPECT_EQ(image_tool::parse_size(one.text).value_or(0), one.bytes) << one.text;
}

TEST_F(Commands, What_another_program_writes_to_is_neither_written_nor_read_unasked)
{
    make_raw("raw", 1000, {{0, 128}, {3, 1}});
    make_raw("other", 1000, {{0, 128}});
    expect("disk @disk --size 20M --system 5M --temporary 5M", 0);
    expect("create @disk:system --from @raw", 0);
    expect("create @area --from @raw", 0);
    const std::string disk = content("disk"), area = content("area");

    int fd = lock("disk", LOCK_EX);
    for (const char* command :
         {"create @disk:system --from @other --force", "disk @disk --size 20M --system 5M --force",
          "resize @disk --size 30M", "repair @disk:system", "check @disk:system",
          "extract @disk:system --to @back", "diff @disk:system @raw", "convert @disk:system @back",
          "measure @disk:system"})
        expect(command, 2, "in use");
    EXPECT_TRUE(content("disk") == disk);
    expect("check @disk:system --in-use", 0, "clean");
    expect("info @disk:system", 0, "in use");
    expect("map @disk:system", 0, "in use");
    close(fd);

    // A server that only reads an area goes on with the old file; it must not see that change.
    fd = lock("area", LOCK_SH);
    expect("check @area", 0, "clean");
    expect("repair @area", 0, "nothing to repair");
    put32("area", 70, 0);
    expect("update @area --from @other", 2, "checksum");
    put("area", 0, area);
    expect("update @area --from @other", 0, "tag 2");
    char byte = 0;
    EXPECT_EQ(pread(fd, &byte, 1, 70), 1);
    EXPECT_EQ(byte, 1);
    close(fd);

    fd = lock("raw", LOCK_EX);
    expect("create @new --from @raw", 2, "in use");
    expect("extract @area --to @raw --force", 2, "in use");
    expect("create @new --from @raw --in-use", 0);
    close(fd);
}

TEST_F(Commands, Area_that_does_not_fit_destroys_nothing)
{
    make_raw("small", 1000, {{0, 128}});
    make_raw("large", 8000, {{0, 128}, {7, 128}, {9, 128}, {60, 5}});
    // Room for 4 chunks (the last one always counts) and what is above them: 16 + 24 + 4 * 128.
    expect("disk @disk --size 20M --system " + std::to_string(552 * 512), 0);
    expect("create @disk:system --from @small", 0);
    const std::string before = content("disk");
    make_raw("one_more", 8000, {{0, 127}, {7, 127}, {9, 127}, {30, 1}, {60, 5}});
    expect("create @disk:system --from @one_more --force", 2, "an area of 552 sectors; they need 808");
    EXPECT_TRUE(content("disk") == before);
    expect("check @disk:system", 0);
    EXPECT_EQ(json("measure @one_more")["required_bytes"], 808 * 512);
    EXPECT_EQ(json("measure @large")["required_chunks"], 8);
    make_raw("fits", 8000, {{0, 127}, {7, 127}, {9, 127}});
    expect("create @disk:system --from @fits --force", 0, "in 552 sectors");
}

TEST_F(Commands, Measure_tells_what_create_needs)
{
    const std::vector<Noise> many[] = {{}, {{0, 128}, {1, 1}, {127, 128}, {128, 128}, {255, 3}, {299, 128}}};
    for (const auto& noises : many) {
        make_raw("raw", 128 * 300, noises);
        expect("create @area --from @raw --force", 0);
        EXPECT_EQ(json("measure @raw")["required_bytes"], std::filesystem::file_size(path("area")));
        EXPECT_EQ(json("measure @area")["required_bytes"], std::filesystem::file_size(path("area")));
    }
    make_raw("full", 128 * 3, {{0, 128}, {1, 128}, {2, 128}});
    expect("create @area --from @full --force", 0);
    EXPECT_EQ(json("measure @full")["full_bytes"], std::filesystem::file_size(path("area")));
}

TEST_F(Commands, Half_filled_copy_is_not_extracted_unless_asked)
{
    make_raw("raw", 1000, {{0, 128}, {1, 128}, {5, 128}, {7, 104}});
    expect("create @area --from @raw", 0);
    const std::string good = content("area");
    // The copy has come past chunk 4. What is absent there is zeros; of the rest, chunk 6 is not there.
    make_half_filled("area", 5);
    put32("area", leaf + 7 * 32 + 4, 0);
    put("area", leaf + 7 * 32 + 16, std::string(16, '\0'));
    expect("extract @area --to @back", 1, "104 of 1000 sectors (10.4 %)");
    expect("convert @area @back", 1, "no whole copy");
    EXPECT_FALSE(std::filesystem::exists(path("back")));
    expect("extract @area --to @back --allow-absent", 0);
    EXPECT_EQ(json("extract @area --to @back --force", 1)["unknown_sectors"], 104);

    // In its first run, before the position was ever stored: the last chunk is missing.
    put("area", 0, good);
    put32("area", leaf + 7 * 32 + 4, 0);
    put("area", leaf + 7 * 32 + 16, std::string(16, '\0'));
    expect("extract @area --to @back --force", 1, "not there");
    // Brought up to date anew: it has chunks of a newer version than its own.
    put("area", 0, good);
    put32("area", leaf + 4, 2);
    expect("extract @area --to @back --force", 1, "not yet brought up to date");

    // Complete.
    put("area", 0, good);
    make_half_filled("area", 7);
    expect("extract @area --to @back --force", 0);
    EXPECT_TRUE(content("back") == content("raw"));
}

TEST_F(Commands, Area_is_no_raw_disk)
{
    make_raw("raw", 1000, {{0, 128}});
    expect("create @area --from @raw", 0);
    expect("create @new --from @area", 2, "is an image area, and no raw disk");
    expect("update @area --from @area", 2, "is an image area");
    EXPECT_FALSE(std::filesystem::exists(path("new")));
}

TEST_F(Commands, Update_keeps_the_image_and_renews_the_tags_of_changed_chunks_only)
{
    make_raw("raw", 128 * 140, {{0, 128}, {1, 128}, {2, 128}, {130, 5}, {135, 7}});
    expect("create @area --from @raw --tag 7", 0);
    const std::string first = content("area");
    expect("update @area --from @raw", 0, "is up to date, tag 7");
    EXPECT_TRUE(content("area") == first);

    // One byte of chunk 1, contents where there were none, and none where there were some.
    const std::string changed = content("raw");
    put("raw", 65536 + 5, std::string(1, static_cast<char>(changed[65536 + 5] ^ 1)));
    put("raw", 70 * 65536 + 100, "new");
    put("raw", 130 * 65536, std::string(65536, '\0'));
    expect("update @area --from @raw", 0, "tag 8, 2 of 7 chunks are new, 1 are gone");
    expect("check @area", 0);
    expect("diff @area @raw", 0);
    EXPECT_EQ(content("area").substr(42, 8), first.substr(42, 8)) << "CreateTime";
    EXPECT_EQ(get<std::uint64_t>("area", 14), get<std::uint64_t>("area", 42)) << "Prev_Time";
    EXPECT_EQ(get<std::uint32_t>("area", 70), 8u);
    const auto map = json("map @area")["luns"][0]["runs_listed"];
    std::map<int, int> tags;
    for (const auto& run : map)
        for (int chunk = run["first_chunk"]; chunk <= run["last_chunk"]; ++chunk)
            tags[chunk] = run["tag"];
    EXPECT_EQ(tags, (std::map<int, int>{{0, 7}, {1, 8}, {2, 7}, {3, 7}, {70, 8}, {135, 7}, {139, 7}}));

    expect("create @larger --from @raw", 0);
    std::filesystem::resize_file(path("raw"), 128 * 141 * 512);
    expect("update @area --from @raw", 2, "create makes a new image");
    make_half_filled("larger", 5);
    std::filesystem::resize_file(path("raw"), 128 * 140 * 512);
    expect("update @larger --from @raw", 2, "a workstation's copy");
}

TEST_F(Commands, Convert_makes_the_other_form)
{
    make_raw("raw", 1000, {{0, 128}, {3, 5}});
    expect("convert @raw @area --tag 3", 0);
    EXPECT_EQ(json("info @area")["tag"], 3);
    expect("convert @area @back", 0);
    EXPECT_TRUE(content("back") == content("raw"));
    expect("convert @area @area --force", 2, "is the file to read from");
    expect("convert @area @again --format area", 0);
    expect("compare @again @raw", 0);
    expect("convert @raw @back", 2, "--force");
}

TEST_F(Commands, Resize_keeps_the_system_image)
{
    make_raw("raw", 3000, {{0, 128}, {3, 5}, {20, 128}});
    expect("disk @disk --size 10M --system 4M --temporary 3M", 0);
    expect("create @disk:system --from @raw", 0);
    expect("resize @disk --system 9M", 2, "the partitions end at sector");
    expect("resize @disk --system 100K", 2, "the image there takes");
    expect("resize @disk --size 5M", 2, "the partitions end at sector");
    expect("diff @disk:system @raw", 0);
    const auto grown = json("resize @disk --size 30.5M --system 20m");
    EXPECT_EQ(grown["sectors"], 62464);
    EXPECT_EQ(grown["partitions"][1]["start_sector"], 21 * 2048);
    EXPECT_EQ(grown["partitions"][1]["sectors"], 3 * 2048);
    EXPECT_EQ(std::filesystem::file_size(path("disk")), 62464 * 512u);
    expect("diff @disk:system @raw", 0);
    expect("resize @disk --size 6M --system 3M --temporary 1M", 0);
    EXPECT_EQ(std::filesystem::file_size(path("disk")), 6u << 20);
    expect("diff @disk:system @raw", 0);
    expect("resize @raw --size 30M", 2, "no partition table");
    expect("disk @only --size 10M --system 4M", 0);
    expect("resize @only --temporary 2M", 2, "no such partition");
    put("disk", 450, "\x07");
    expect("resize @disk --size 30M", 2, "partition editor");
}

TEST_F(Commands, Repair_mends_what_needs_no_server)
{
    make_raw("raw", 300 * 128 - 28, {{0, 100}, {1, 100}, {200, 100}, {299, 100}});
    expect("create @area --from @raw", 0);
    const std::string good = content("area");
    const struct {
        std::uint64_t offset;
        std::uint32_t value;
    } cases[] = {{0, 79},        {4, 0},
                 {50, 5},        {524, 512},
                 {528, 1},       {532, 16},
                 {536, 441},     {536, 576},
                 {536, 440},     {544, 16},
                 {74, 1},        {248, 300},
                 {leaf + 12, 1}, {432 * 512 + 43 * 32 + 28, 0xFF}};
    for (const auto& one : cases) {
        put32("area", one.offset, one.value);
        if (one.offset != 74)
            renew_checksum("area");
        SCOPED_TRACE(one.offset);
        expect("check @area", 1);
        expect("repair @area", 0, "faults before, 0 now");
        expect("check @area", 0);
        expect("diff @area @raw", 0);
        expect("extract @area --to @back --force", 0);
        put("area", 0, good);
    }
}

TEST_F(Commands, Chunks_that_repair_drops_are_never_taken_for_zeros)
{
    make_raw("raw", 300 * 128 - 28, {{0, 100}, {1, 100}, {200, 100}, {299, 100}});
    expect("create @area --from @raw", 0);
    const std::string server = content("area");
    put32("area", leaf, 100000);
    expect("repair @area", 1, "no workstation's copy");
    EXPECT_EQ(content("area").substr(0, leaf), server.substr(0, leaf));

    put("area", 0, server);
    make_half_filled("area", 299);
    const std::string copy = content("area");
    for (const std::uint32_t data : {100000u, 0u}) {
        put32("area", leaf, data);
        expect("repair @area", 0, "lost 1 chunks");
        expect("check @area", 0);
        EXPECT_EQ(get<std::uint32_t>("area", 248), 0u) << "Sync_Pos";
        expect("extract @area --to @back", 1, "not there");
        put("area", 0, copy);
    }
    // A map that leads astray, and two chunks that claim one block.
    for (const auto& [offset, value] : {std::pair{24 * 512u, 20u}, std::pair{32 * 512u + 32, 40u}}) {
        put32("area", offset, value);
        expect("repair @area", 0, "lost its map");
        expect("check @area", 0, "the area is new");
        EXPECT_EQ(get<std::uint32_t>("area", 248), 0u);
        put("area", 0, copy);
    }
}

TEST_F(Commands, Repair_ends_well_whatever_is_broken)
{
    make_raw("raw", 300 * 128 - 28, {{0, 100}, {1, 100}, {200, 100}, {299, 100}});
    expect("create @area --from @raw", 0);
    make_half_filled("area", 299);
    const std::string good = content("area");
    unsigned mended = 0;
    for (unsigned seed = 0; seed < seeds_of(300); ++seed) {
        SCOPED_TRACE(seed);
        random_.seed(seed);
        for (unsigned changes = 1 + random_() % 4; changes != 0; --changes) {
            const std::uint64_t blocks[] = {512, 8 * 512, 16 * 512, 24 * 512, leaf, 296 * 512, 432 * 512};
            const std::uint64_t offset = blocks[random_() % std::size(blocks)] + random_() % 16 * 4;
            put32("area", offset,
                  static_cast<std::uint32_t>(random_() % 2 != 0 ? random_() % 80 * 8 : random_()));
        }
        const int status = run("repair @area").status;
        // 2: not a header any more.
        EXPECT_EQ(run("check @area").status, status == 0 ? 0 : 1);
        mended += status == 0;
        if (status == 0) {
            EXPECT_EQ(run("map @area").status, 0);
        }
        put("area", 0, good);
    }
    EXPECT_GT(mended, seeds_of(300) / 2);
}

TEST_F(Commands, Everything_speaks_json_too)
{
    make_raw("raw", 1000, {{0, 128}});
    EXPECT_EQ(json("create @area --from @raw")["chunks_stored"], 3);
    EXPECT_EQ(json("info @area")["disk_sectors"], 1000);
    EXPECT_EQ(json("check @area")["fault_count"], 0);
    EXPECT_EQ(json("map @area")["luns"][0]["chunks_present"], 3);
    EXPECT_EQ(json("compare @area @raw")["sectors_that_differ"], 0);
    EXPECT_EQ(json("extract @area --to @back")["present_sectors"], 360);
    EXPECT_EQ(json("convert @area @back2")["disk_sectors"], 1000);
    EXPECT_EQ(json("update @area --from @raw")["chunks_changed"], 0);
    EXPECT_EQ(json("repair @area")["faults"], 0);
    EXPECT_EQ(json("disk @disk --size 10M --system 4M")["partitions"][0]["use"], "system");
    put("raw", 0, std::string(1, static_cast<char>(content("raw")[0] ^ 1)));
    EXPECT_EQ(json("compare @area @raw", 1)["runs_listed"][0]["difference"], "differ");
    put32("area", 0, 79);
    EXPECT_EQ(json("check @area", 1)["faults"][0]["kind"], "header");
}

}  // namespace
}  // namespace tools_test
