// SPDX-License-Identifier: MIT
// The program itself: its arguments, its streams, its exit status.
#include "tests/program.h"

namespace {

class ImageProgram : public ProgramTest {
protected:
    ImageProgram() : ProgramTest(QRN_IMAGE)
    {
        make("raw", 150 * 512);
        make("odd", 513);
        make("empty", 0);
        EXPECT_EQ(run("create area --from raw"), 0);
    }
    void make(const std::string& name, std::size_t size)
    {
        std::ofstream(folder / name, std::ios::binary) << std::string(size, 'r');
    }
};

TEST_F(ImageProgram, Wrong_arguments_get_one_line_and_status_2)
{
    const struct {
        const char *arguments, *reason;
    } cases[] = {{"", "subcommand"},
                 {"frobnicate", "frobnicate"},
                 {"check", "AREA"},
                 {"check area --loud", "--loud"},
                 {"check area raw", "raw"},
                 {"check missing", "missing: No such file"},
                 {"check .", "neither a file"},
                 {"create new", "--from"},
                 {"create new --from missing", "missing: No such file"},
                 {"create new --from odd", "513 bytes"},
                 {"create new --from empty", "0 bytes"},
                 {"create new --from raw --tag 0", "--tag"},
                 {"create new --from raw --tag -1", "--tag"},
                 {"create new --from raw --size-limit 0", "no size"},
                 {"create new --from raw --size-limit 16777216T", "no size"},
                 {"create area --from raw", "--force"},
                 {"extract raw --to new", "not an image area"},
                 {"extract area --to new --lun 8", "--lun"},
                 {"map area --width 1", "--width"},
                 {"disk new --size 10x --system 1M", "no size"},
                 {"disk new --size 4M", "--system"},
                 {"info area >/dev/full 2>err;", "cannot be written"}};
    for (const auto& one : cases) {
        expect_failure(one.arguments, 2, one.reason);
        EXPECT_FALSE(std::filesystem::exists(folder / "new")) << one.arguments;
    }
}

TEST_F(ImageProgram, Status_tells_scripts_the_outcome)
{
    EXPECT_EQ(run("check area"), 0);
    EXPECT_EQ(content_of("err"), "") << "progress where nobody looks";
    EXPECT_EQ(run("diff area raw"), 0);
    make("other", 151 * 512);
    EXPECT_EQ(run("diff area other"), 1);
    EXPECT_EQ(run("check raw"), 1);
}

TEST_F(ImageProgram, Pipes_carry_disks_both_ways)
{
    make("large", 3 << 20);
    EXPECT_EQ(run("create piped --from - <large"), 0);
    EXPECT_EQ(run("compare piped large"), 0);
    EXPECT_EQ(run("compare large - <large"), 0);
    EXPECT_NE(content_of("out").find("0 sectors differ"), std::string::npos);
    EXPECT_EQ(run("extract piped --to -"), 0);
    EXPECT_TRUE(content_of("out") == content_of("large"));
    EXPECT_NE(content_of("err").find("6144 sectors"), std::string::npos);
    EXPECT_EQ(run("convert - - --format area <large"), 0);
    std::filesystem::rename(folder / "out", folder / "area2");
    EXPECT_EQ(run("check area2"), 0);
    EXPECT_EQ(run("extract - --to back <area2"), 0);
    EXPECT_TRUE(content_of("back") == content_of("large"));
    expect_failure("create new --from - </dev/null", 2, "standard input: 0 bytes");
    expect_failure("extract piped --to - >/dev/full 2>err;", 2, "standard output: No space");
}

TEST_F(ImageProgram, Help_names_every_option_of_every_command)
{
    ASSERT_EQ(run("--help"), 0);
    const std::string help = content_of("out");
    for (const char* word :
         {"disk",    "--size",       "--system",    "--temporary", "create",         "--from",
          "--tag",   "--size-limit", "extract",     "--to",        "--lun",          "info",
          "map",     "--width",      "--ascii",     "--all",       "check",          "compare",
          "--force", "FILE:system",  "Exit status", "resize",      "update",         "convert",
          "measure", "repair",       "--output",    "--in-use",    "--allow-absent", "--format"})
        EXPECT_NE(help.find(word), std::string::npos) << word;
    ASSERT_EQ(run("create --help"), 0);
    EXPECT_NE(content_of("out").find("--size-limit"), std::string::npos);
}

}  // namespace
