// SPDX-License-Identifier: MIT
// How much physical memory there is, below and above 4 GB.
#include "driver/state/memory_probe.h"

#include "driver/state/settings.h"
#include "machine/executive/executive.h"
#include "tests/driver/driver_test.h"

namespace {

using machine::MachineConfig;
using machine::MemoryRange;
using machine::Operation;

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;

MachineConfig with_ranges(std::vector<MemoryRange> ranges, std::uint64_t above_4g = 0, bool mm64bit = false)
{
    MachineConfig config;
    config.memory_ranges = std::move(ranges);
    config.unmanaged_above_4g_bytes = above_4g;
    config.mm64bit = mm64bit;
    return config;
}

TEST(PhysMemProbe, Counts_all_ranges_and_spans_the_large_ones)
{
    struct Row {
        std::vector<MemoryRange> ranges;
        LONG expected_mb;
        std::uint64_t low, high;
        const char* message;  // without what all have
    };
    const Row rows[] = {
        {{{mb, 3500 * mb}}, 3500, mb, 3501 * mb, "3500MB(000100000-0DAD00000)"},
        {{{4096, 0x9E000}, {mb, 3071 * mb}}, -3071, mb, 3 * gb, "-3071MB(000100000-0C0000000)"},
        // Exactly 64 MB is not large; the lowest large base need not come first.
        {{{mb, 64 * mb}, {gb, 2 * gb}, {256 * mb, 65 * mb}, {5 * gb, gb}},
         -3201,
         256 * mb,
         6 * gb,
         "-3201MB(010000000-180000000)"},
        {{{mb, 3327 * mb - 1}}, -3326, mb, 3328 * mb - 1, "-3326MB(000100000-0CFFFFFFF)"},
        {{{mb, 3327 * mb}}, 3327, mb, 3328 * mb, "3327MB(000100000-0D0000000)"},
        {{{mb, 10 * mb}}, -10, 0x08000000, 0, "-10MB(008000000-000000000)"},
        {{{0, 3500 * mb}}, 0, 0x08000000, 0xFFFFFFFF, nullptr}};
    for (const Row& row : rows) {
        DriverPiece driver(with_ranges(row.ranges));
        driver.run([&] {
            // A second walk starts afresh.
            for (int walk = 0; walk < 2; ++walk) {
                EXPECT_EQ(Phys_Mem_Probe(), row.expected_mb);
                EXPECT_EQ(Phys_Span_Get().Low, row.low);
                EXPECT_EQ(Phys_Span_Get().High, row.high);
            }
            EXPECT_EQ(driver.machine.pool_bytes(), 0u) << "the list is not freed";
        });
        std::string message =
            row.message ? std::string("\nQRN MDL: MmGetPhysicalMemory ") + row.message + ", PAE_Gate:3327"
                        : "\n";
        EXPECT_EQ(driver.machine.log().count(message), row.message ? 2u : 0u) << driver.machine.log().text();
    }
}

TEST(PhysMemProbe, Without_a_list_of_ranges_knows_nothing)
{
    DriverPiece driver;
    driver.machine.faults().fail(Operation::memory_ranges);
    driver.run([] { EXPECT_EQ(Phys_Mem_Probe(), 0); });
    EXPECT_TRUE(driver.machine.log().entries().empty());
}

TEST(PaeProbe, Counts_blocks_above_4_GB_that_hold_a_write_and_restores_them)
{
    constexpr char visible[] = "\nQRN MDL: MmGetPhysicalMemory 3500MB(000100000-0DAD00000), PAE_Gate:3327";
    constexpr char too_little[] =
        "\nQRN MDL: MmGetPhysicalMemory -3000MB(000100000-0BB900000), PAE_Gate:3327";
    constexpr char memory[] = "\nQRN MDL: PAE Memory:";
    constexpr unsigned any = 20000;
    struct Row {
        std::optional<std::uint32_t> pae_flag;  // in the registry
        std::uint64_t visible_mb, above_4g_mb;
        bool mm64bit;
        unsigned mappings;  // that succeed
        LONG expected_blocks;
        std::string messages;
        std::uint64_t answering_mb = 0;  // above 4 GB, nothing answers behind so many; 0: all of it answers
    };
    const std::string off = "\nQRN MDL: PAE Flag:0", on = "\nQRN MDL: PAE Flag:1";
    const Row rows[] = {
        {{}, 3500, 4096, false, any, 0, off + visible},
        {0, 3500, 4096, false, any, 0, off + visible},
        {1, 3000, 4096, false, any, 0, on + too_little},
        {1, 3500, 4096, true, any, 0, on + visible + "\nQRN MDL: Mm64Bit"},
        {1, 3500, 4096, false, any, 1024, on + visible + memory + "4096MB 1024"},
        {2, 3500, 11, false, any, 2, "\nQRN MDL: PAE Flag:2" + (visible + std::string(memory)) + "8MB 2"},
        {1, 3500, 0, false, any, 0, on + visible + memory + "0MB 0"},
        {1, 3500, 4096, false, 3, 3, on + visible + memory + "12MB 3"},
        {1, 3500, 61 * 1024, false, any, 15360, on + visible + memory + "61440MB 15360"},
        {1, 3500, 4096, false, any, 7, on + visible + memory + "28MB 7", 7 * 4}};
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        MachineConfig config = with_ranges({{mb, row.visible_mb * mb}}, row.above_4g_mb * mb, row.mm64bit);
        if (row.answering_mb)
            config.unanswered_ranges = {{4 * gb + row.answering_mb * mb, gb}};
        DriverPiece driver(config);
        if (row.pae_flag)
            driver.machine.registry().set_dword(machine::Registry::memory_management_key,
                                                u"PhysicalAddressExtension", *row.pae_flag);
        driver.machine.faults().fail(Operation::map_io_space, {}, row.mappings);
        std::vector<std::uint8_t> content = {1, 2, 3, 4, 5}, after(content.size());
        if (row.above_4g_mb)
            driver.machine.memory().write(4 * gb + 4 * mb, content);
        driver.run([&] { EXPECT_EQ(PAE_Probe(), row.expected_blocks); });
        EXPECT_EQ(driver.machine.log().text(), row.messages);
        EXPECT_EQ(driver.machine.memory().windows(), 0u);
        if (row.above_4g_mb) {
            driver.machine.memory().read(4 * gb + 4 * mb, after);
            EXPECT_EQ(after, content);
        }
    }
}

}  // namespace
