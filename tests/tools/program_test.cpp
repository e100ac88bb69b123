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

TEST_F(ImageProgram, Help_names_every_option_of_every_command)
{
    ASSERT_EQ(run("--help"), 0);
    const std::string help = content_of("out");
    for (const char* word :
         {"disk",         "--size",  "--system", "--temporary", "create",  "--from",      "--tag",
          "--size-limit", "extract", "--to",     "--lun",       "info",    "map",         "--width",
          "--ascii",      "--all",   "check",    "diff",        "--force", "FILE:system", "Exit status"})
        EXPECT_NE(help.find(word), std::string::npos) << word;
    ASSERT_EQ(run("create --help"), 0);
    EXPECT_NE(content_of("out").find("--size-limit"), std::string::npos);
}

}  // namespace
