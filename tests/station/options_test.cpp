// SPDX-License-Identifier: MIT
#include "station/options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/scratch_folder.h"

using namespace station;

namespace {

class Arguments : public testing::Test {
protected:
    void SetUp() override
    {
        formats::Boot_Param block{};
        for (const int disks : {1, int{formats::disk_nums_searching}}) {
            block.Disk_Nums = static_cast<std::uint8_t>(disks);
            std::ofstream(folder / (disks == 1 ? "block" : "searching"), std::ios::binary)
                .write(reinterpret_cast<const char*>(&block), sizeof block);
        }
        std::ofstream(folder / "short") << std::string(359, 'x');
        std::ofstream(folder / "long") << std::string(361, 'x');
    }

    // @name is a file in the folder.
    std::optional<Options> parse(const std::string& line) const
    {
        std::vector<std::string> words = {"qrn-station"};
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            words.push_back(word.starts_with("@") ? folder / word.substr(1) : word);
        std::vector<char*> argv;
        for (std::string& each : words)
            argv.push_back(each.data());
        argv.push_back(nullptr);
        return parse_options(static_cast<int>(argv.size()) - 1, argv.data());
    }

    const ScratchFolder folder;
};

}  // namespace

TEST_F(Arguments, Numbers_arrive)
{
    const auto options =
        parse("--boot-block @block --reg RW_THREADS=8 --reg PAE_SIZE=0xBB8 --memory 3000,above4g=16384");
    ASSERT_TRUE(options);
    EXPECT_EQ(options->settings,
              (std::vector<std::pair<std::string, std::uint32_t>>{{"RW_THREADS", 8}, {"PAE_SIZE", 3000}}));
    EXPECT_EQ(options->memory_mb, 3000u);
    EXPECT_EQ(options->above_4g_mb, 16384u);
}

TEST_F(Arguments, Wrong_ones_are_told_in_one_line_that_names_them)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", "--boot-block"},
        {"--boot-block @short", "360"},
        {"--low-memory no/such/file", "cannot open"},
        {"--low-memory @block", "640 KB"},
        {"--boot-block @block --low-memory @block", "one of"},
        {"--boot-block @long", "360"},
        {"--boot-block @searching --handover transport", "searching"},
        {"--boot-block @block --handover magic", "magic"},
        {"--boot-block @block --nbd tcp:1.2.3.4:x", "--nbd"},
        {"--boot-block @block --nbd tcp:127.0.0.1:65536", "--nbd"},
        {"--boot-block @block --reg RW_THREADS", "--reg"},
        {"--boot-block @block --reg RW_THREADS=0x", "RW_THREADS"},
        {"--boot-block @block --reg RW_THREADS=8x", "8x"},
        {"--boot-block @block --reg RW_THREADS=4294967296", "4294967296"},
        {"--boot-block @block --reg THREADS=8", "THREADS"},
        {"--boot-block @block --memory=", "--memory"},
        {"--boot-block @block --memory 15", "15"},
        {"--boot-block @block --memory 3584", "3584"},
        {"--boot-block @block --memory lots", "lots"},
        {"--boot-block @block --memory 512,4096", "above4g"},
        {"--boot-block @block --memory 3400,above4g=61441", "61440"},
        {"--boot-block @block --memory 3326,above4g=64", "PAE_SIZE"},
    };
    for (const auto& [line, names] : cases) {
        SCOPED_TRACE(line);
        try {
            parse(line);
            ADD_FAILURE() << "was taken";
        } catch (const OptionError& error) {
            const std::string text = error.what();
            EXPECT_NE(text.find(names), std::string::npos) << text;
            EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        }
    }
}
