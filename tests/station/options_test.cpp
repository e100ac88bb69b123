#include "station/options.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/station/scratch_folder.h"

using namespace station;

namespace {

class Arguments : public testing::Test {
protected:
    void SetUp() override
    {
        formats::Boot_Param block{};
        block.Disk_Nums = 1;
        std::ofstream(folder / "block", std::ios::binary)
            .write(reinterpret_cast<const char*>(&block), sizeof block);
        std::ofstream(folder / "short") << std::string(359, 'x');
        std::ofstream(folder / "long") << std::string(361, 'x');
        block.Disk_Nums = formats::disk_nums_searching;
        std::ofstream(folder / "searching", std::ios::binary)
            .write(reinterpret_cast<const char*>(&block), sizeof block);
    }

    std::optional<Options> parse(std::vector<std::string> words) const
    {
        std::vector<char*> argv = {const_cast<char*>("qrn-station")};
        for (std::string& each : words) {
            if (each.starts_with("@"))
                each = folder / each.substr(1);
            argv.push_back(each.data());
        }
        argv.push_back(nullptr);
        return parse_options(static_cast<int>(argv.size()) - 1, argv.data());
    }

    const station_test::ScratchFolder folder;
};

}  // namespace

TEST_F(Arguments, All_options_arrive)
{
    const auto options =
        parse({"--boot-block", "@block", "--handover", "transport", "--nbd", "unix:/run/x", "--driver",
               "a.sys", "--reg", "RW_THREADS=8", "--reg", "RW_RACK=0x705", "--memory", "3000,above4g=4096",
               "--log", "l", "--stats-json", "s", "--status"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->boot_block.Disk_Nums, 1);
    EXPECT_EQ(options->handover, Handover::transport);
    EXPECT_EQ(options->nbd.text(), "unix:/run/x");
    EXPECT_EQ(options->driver, "a.sys");
    EXPECT_EQ(options->settings,
              (std::vector<std::pair<std::string, std::uint32_t>>{{"RW_THREADS", 8}, {"RW_RACK", 0x705}}));
    EXPECT_EQ(options->memory_mb, 3000u);
    EXPECT_EQ(options->above_4g_mb, 4096u);
    EXPECT_EQ(options->log, "l");
    EXPECT_EQ(options->stats_json, "s");
    EXPECT_TRUE(options->status);
}

TEST_F(Arguments, Boot_block_alone_is_enough)
{
    const auto options = parse({"--boot-block", "@block"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->handover, Handover::low_memory);
    EXPECT_EQ(options->nbd.text(), "tcp:127.0.0.1:10809");
    EXPECT_EQ(options->driver, "builtin");
    EXPECT_FALSE(options->log || options->stats_json || options->status);
}

TEST_F(Arguments, Wrong_ones_are_told_in_one_line_that_names_them)
{
    const std::vector<std::string> block = {"--boot-block", "@block"};
    const struct {
        std::vector<std::string> words;
        const char* names;
    } cases[] = {
        {{}, "--boot-block"},
        {{"--boot-block", "@nothing"}, "nothing"},
        {{"--boot-block", "@short"}, "360"},
        {{"--boot-block", "@long"}, "360"},
        {{"--boot-block", "@searching", "--handover", "transport"}, "searching"},
        {{"--frobnicate"}, "--frobnicate"},
        {{"stray"}, "stray"},
        {{"--handover", "magic"}, "magic"},
        {{"--handover", "0"}, "0"},
        {{"--nbd", "tcp:1.2.3.4:x"}, "--nbd"},
        {{"--reg", "RW_THREADS"}, "--reg"},
        {{"--reg", "RW_THREADS="}, "RW_THREADS"},
        {{"--reg", "RW_THREADS=0x"}, "RW_THREADS"},
        {{"--reg", "RW_THREADS=8x"}, "8x"},
        {{"--reg", "RW_THREADS=4294967296"}, "4294967296"},
        {{"--reg", "THREADS=8"}, "THREADS"},
        {{"--memory", "15"}, "15"},
        {{"--memory", "3584"}, "3584"},
        {{"--memory", "lots"}, "lots"},
        {{"--memory", "512,4096"}, "above4g"},
        {{"--memory", "512,above4g=61441"}, "61440"},
        {{"--memory", "512,above4g="}, "above4g"},
    };
    for (const auto& each : cases) {
        std::vector<std::string> words = each.words;
        const bool has_block = !words.empty() && words[0] == "--boot-block";
        if (!has_block && !words.empty())
            words.insert(words.begin(), block.begin(), block.end());
        std::string line;
        for (const std::string& word : words)
            line += word + " ";
        SCOPED_TRACE(line);
        try {
            parse(words);
            ADD_FAILURE() << "was taken";
        } catch (const OptionError& error) {
            const std::string text = error.what();
            EXPECT_NE(text.find(each.names), std::string::npos) << text;
            EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        }
    }
}
