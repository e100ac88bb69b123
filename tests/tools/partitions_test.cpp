// SPDX-License-Identifier: MIT
// Areas in partitions, and what is there already.
#include <fstream>

#include "tests/tools/tool_test.h"

namespace tools_test {
namespace {

class Partitions : public ToolTest {
protected:
    Partitions() { make_raw("raw", 500, {{0, 128}, {3, 116}}); }

    std::size_t files() const
    {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder()),
                                                      std::filesystem::directory_iterator()));
    }
    std::filesystem::path folder() const
    {
        return std::filesystem::path(const_cast<Partitions*>(this)->path("raw")).parent_path();
    }
};

TEST_F(Partitions, Disk_has_the_partition_table_that_the_driver_looks_for)
{
    expect("disk @disk --size 64M --system 33554944 --temporary 16M", 0);
    EXPECT_EQ(std::filesystem::file_size(path("disk")), 64u << 20);
    const std::string table = content("disk").substr(0, 512);
    const auto at = [&](std::size_t offset) {
        std::uint32_t value;
        std::memcpy(&value, table.data() + offset, sizeof value);
        return value;
    };
    EXPECT_EQ(table[450], 0x51);
    EXPECT_EQ(at(454), 2048u);
    EXPECT_EQ(at(458), 65537u);
    EXPECT_EQ(table[466], 0x52);
    EXPECT_EQ(at(470), 2048u + 67584u) << "on the next whole megabyte";
    EXPECT_EQ(at(474), 32768u);
    EXPECT_EQ(table.substr(478, 34), std::string(32, '\0') + "\x55\xAA");
}

TEST_F(Partitions, Area_that_overlaps_another_partition_is_refused)
{
    expect("disk @disk --size 4M --system 1M --temporary 1M", 0);
    std::string count = content("disk").substr(458, 4);
    put("disk", 458, std::string("\x01\x10\x00\x00", 4));  // one sector into the temporary image
    expect("create @disk:system --from @raw", 2, "partition 1 overlaps another one");
    put("disk", 458, count);
    expect("create @disk:system --from @raw", 0);
}

TEST_F(Partitions, Disk_that_no_workstation_can_address_is_refused)
{
    std::ofstream(path("huge"));
    std::filesystem::resize_file(path("huge"), std::uint64_t{1} << 40);
    expect("create @area --from @huge", 2, "more than the 1 TB");
}

TEST_F(Partitions, Area_in_a_partition_stays_within_it)
{
    expect("disk @disk --size 4M --system 1M --temporary 1M", 0);
    put("disk", (1 << 20) - 1, "<");
    put("disk", 2 << 20, std::string(100, '>'));
    expect("create @disk:system --from @raw", 0);
    for (const char* area : {"@disk:system", "@disk:1"}) {
        expect(std::string("check ") + area, 0);
        expect(std::string("diff @raw ") + area, 0);
    }
    expect("info @disk:1", 0, "partition 1 of type 51 from sector 2048 on");
    make_raw("large", 4096,
             {{0, 128},
              {15, 128},
              {31, 128},
              {29, 128},
              {27, 128},
              {25, 128},
              {23, 128},
              {21, 128},
              {19, 128},
              {17, 128}});
    expect("create @disk:temporary --from @large --force", 2, "do not fit into an area of 2048 sectors");
    EXPECT_EQ(content("disk").substr((1 << 20) - 1, 1), "<");
    EXPECT_EQ(content("disk").substr(2 << 20, 2), ">>") << "nothing is touched";
    EXPECT_EQ(content("disk").substr(3 << 20), std::string(1 << 20, '\0'));
}

TEST_F(Partitions, Zeros_replace_what_a_partition_held_before)
{
    expect("disk @disk --size 4M --system 2M", 0);
    put("disk", 1 << 20, std::string(2 << 20, '?'));
    expect("create @disk:1 --from @raw", 2, "in use");
    expect("create @disk:1 --from @raw --force", 0);
    expect("check @disk:1", 0);
    expect("diff @disk:1 @raw", 0);
}

TEST_F(Partitions, Wrong_names_and_tables_are_refused)
{
    expect("disk @disk --size 4M --system 1M", 0);
    expect("check @disk:temporary", 2, "has no partition 'temporary'");
    expect("check @disk:2", 2, "has no partition '2'");
    expect("check @disk:5", 2, "No such file");
    expect("check @raw:1", 2);
    for (const auto& [offset, value] :
         {std::pair(454u, 0u), {454u, 6145u}, {454u, 0xFFFFFFFFu}, {458u, 0u}, {458u, 0xFFFFFFFFu}}) {
        const auto before = get<std::uint32_t>("disk", offset);
        put32("disk", offset, value);
        expect("check @disk:system", 2, "does not fit the disk");
        put32("disk", offset, before);
    }
    expect("create @colon:1 --from @raw", 2, "No such file");
    std::filesystem::copy(path("raw"), path("colon:1"));
    expect("create @area --from @colon:1", 0);
}

TEST_F(Partitions, Nothing_is_overwritten_unless_forced_and_nothing_half_done_is_left)
{
    expect("create @area --from @raw", 0);
    const std::string before = content("area");
    const std::size_t files_before = files();
    for (const char* command :
         {"create @area --from @raw", "create @area --from @raw --force --size-limit 100K",
          "create @area --from @area --force", "create @new --from @raw --size-limit 100K",
          "extract @area --to @raw", "extract @area --to @area --force", "disk @area --size 4M --system 1M",
          "disk @new --size 4M --system 4M", "disk @new --size 4M --system 512", "disk @new --size 4M",
          "disk @new --size 1000 --system 1M", "disk @new --size 3T --system 1M",
          "create @no/area --from @raw"})
        expect(command, 2);
    EXPECT_TRUE(content("area") == before);
    EXPECT_EQ(files(), files_before);
    std::filesystem::create_symlink("area", path("link"));
    expect("create @link --from @raw --force --tag 9", 0);
    EXPECT_EQ(get<std::uint32_t>("area", 70), 9u) << "the file behind the link is replaced";
    for (const char* command :
         {"check @area", "info @area", "map @area", "diff @area @raw", "extract @area --to @back"})
        expect(command, 0);
    EXPECT_EQ(get<std::uint32_t>("area", 70), 9u);
}

}  // namespace
}  // namespace tools_test
