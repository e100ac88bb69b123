// How much physical memory there is, below and above 4 GB.
#include "driver/startup/memory_probe.h"

#include "driver/startup/settings.h"
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
        const char* message;
    };
    const Row rows[] = {
        {{{mb, 3500 * mb}},
         3500,
         mb,
         3501 * mb,
         "\nQRN MDL: MmGetPhysicalMemory 3500MB(000100000-0DAD00000), PAE_Gate:3327"},
        {{{mb, 3000 * mb}},
         -3000,
         mb,
         3001 * mb,
         "\nQRN MDL: MmGetPhysicalMemory -3000MB(000100000-0BB900000), PAE_Gate:3327"},
        {{{0x1000, 0x9E000}, {0x100000, 0xBFF00000}},
         -3071,
         0x100000,
         0xC0000000,
         "\nQRN MDL: MmGetPhysicalMemory -3071MB(000100000-0C0000000), PAE_Gate:3327"},
        // Exactly 64 MB is not large; the lowest large base need not come first.
        {{{mb, 64 * mb}, {gb, 2 * gb}, {256 * mb, 65 * mb}, {5 * gb, gb}},
         -3201,
         256 * mb,
         6 * gb,
         "\nQRN MDL: MmGetPhysicalMemory -3201MB(010000000-180000000), PAE_Gate:3327"},
        {{{mb, 3327 * mb - 1}},
         -3326,
         mb,
         3328 * mb - 1,
         "\nQRN MDL: MmGetPhysicalMemory -3326MB(000100000-0CFFFFFFF), PAE_Gate:3327"},
        {{{mb, 3327 * mb}},
         3327,
         mb,
         3328 * mb,
         "\nQRN MDL: MmGetPhysicalMemory 3327MB(000100000-0D0000000), PAE_Gate:3327"},
        {{{mb, 10 * mb}},
         -10,
         0x08000000,
         0,
         "\nQRN MDL: MmGetPhysicalMemory -10MB(008000000-000000000), PAE_Gate:3327"},
        {{{0, 3500 * mb}}, 0, 0x08000000, 0xFFFFFFFF, nullptr},
    };
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
        EXPECT_EQ(driver.machine.log().count(row.message ? row.message : "\n"), row.message ? 2u : 0u)
            << driver.machine.log().text();
    }
}

TEST(PhysMemProbe, Without_a_list_of_ranges_knows_nothing)
{
    DriverPiece driver;
    driver.machine.faults().fail(Operation::memory_ranges);
    driver.run([] { EXPECT_EQ(Phys_Mem_Probe(), 0); });
    EXPECT_TRUE(driver.machine.log().entries().empty());
}

struct ProbeRow {
    const char* name;
    std::optional<std::uint32_t> pae_flag;  // in the registry
    std::uint64_t visible, above_4g;
    bool mm64bit;
    unsigned mappings;  // that succeed
    LONG expected_blocks;
    std::vector<std::string> messages;
};

class PaeProbe : public testing::TestWithParam<ProbeRow> {};

constexpr char visible_3500[] = "\nQRN MDL: MmGetPhysicalMemory 3500MB(000100000-0DAD00000), PAE_Gate:3327";
constexpr unsigned any = 20000;

TEST_P(PaeProbe, Counts_blocks_above_4_GB_that_hold_a_write)
{
    const ProbeRow& row = GetParam();
    DriverPiece driver(with_ranges({{mb, row.visible}}, row.above_4g, row.mm64bit));
    if (row.pae_flag)
        driver.machine.registry().set_dword(machine::Registry::memory_management_key,
                                            u"PhysicalAddressExtension", *row.pae_flag);
    driver.machine.faults().fail(Operation::map_io_space, {}, row.mappings);
    driver.run([&] { EXPECT_EQ(PAE_Probe(), row.expected_blocks); });
    std::vector<std::string> messages;
    for (const auto& entry : driver.machine.log().entries())
        messages.push_back(entry.text);
    EXPECT_EQ(messages, row.messages);
    EXPECT_EQ(driver.machine.memory().windows(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    MemoryProbe, PaeProbe,
    testing::Values(
        ProbeRow{"no_flag", {}, 3500 * mb, 4 * gb, false, any, 0, {"\nQRN MDL: PAE Flag:0", visible_3500}},
        ProbeRow{"flag_0", 0, 3500 * mb, 4 * gb, false, any, 0, {"\nQRN MDL: PAE Flag:0", visible_3500}},
        ProbeRow{"too_little",
                 1,
                 3000 * mb,
                 4 * gb,
                 false,
                 any,
                 0,
                 {"\nQRN MDL: PAE Flag:1",
                  "\nQRN MDL: MmGetPhysicalMemory -3000MB(000100000-0BB900000), PAE_Gate:3327"}},
        ProbeRow{"system_uses_it",
                 1,
                 3500 * mb,
                 4 * gb,
                 true,
                 any,
                 0,
                 {"\nQRN MDL: PAE Flag:1", visible_3500, "\nQRN MDL: Mm64Bit"}},
        ProbeRow{"four_GB",
                 1,
                 3500 * mb,
                 4 * gb,
                 false,
                 any,
                 1024,
                 {"\nQRN MDL: PAE Flag:1", visible_3500, "\nQRN MDL: PAE Memory:4096MB 1024"}},
        ProbeRow{"odd_end",
                 2,
                 3500 * mb,
                 11 * mb,
                 false,
                 any,
                 2,
                 {"\nQRN MDL: PAE Flag:2", visible_3500, "\nQRN MDL: PAE Memory:8MB 2"}},
        ProbeRow{"nothing_there",
                 1,
                 3500 * mb,
                 0,
                 false,
                 any,
                 0,
                 {"\nQRN MDL: PAE Flag:1", visible_3500, "\nQRN MDL: PAE Memory:0MB 0"}},
        ProbeRow{"mapping_fails",
                 1,
                 3500 * mb,
                 4 * gb,
                 false,
                 3,
                 3,
                 {"\nQRN MDL: PAE Flag:1", visible_3500, "\nQRN MDL: PAE Memory:12MB 3"}},
        ProbeRow{"more_than_60_GB",
                 1,
                 3500 * mb,
                 61 * gb,
                 false,
                 any,
                 15360,
                 {"\nQRN MDL: PAE Flag:1", visible_3500, "\nQRN MDL: PAE Memory:61440MB 15360"}}),
    [](const auto& info) { return info.param.name; });

TEST(MemoryProbe, Leaves_the_memory_above_4_GB_as_it_was)
{
    DriverPiece driver(with_ranges({{mb, 3500 * mb}}, 16 * mb));
    driver.machine.registry().set_dword(machine::Registry::memory_management_key, u"PhysicalAddressExtension",
                                        1);
    std::vector<std::uint8_t> content = {1, 2, 3, 4, 5}, after(content.size());
    driver.machine.memory().write(4 * gb + 4 * mb, content);
    driver.run([] { EXPECT_EQ(PAE_Probe(), 4); });
    driver.machine.memory().read(4 * gb + 4 * mb, after);
    EXPECT_EQ(after, content);
}

}  // namespace
