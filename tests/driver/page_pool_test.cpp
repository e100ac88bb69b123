// SPDX-License-Identifier: MIT
// A cache's physical memory: how it is laid out in chunks, and the few windows through which it is seen.
#include "driver/cache/page_pool.h"

#include <cstring>

#include "driver/state/memory_probe.h"
#include "machine/executive/executive.h"
#include "tests/driver/driver_test.h"
#include "tests/machine/kernel_test.h"

namespace {

using machine::MachineConfig;
using machine::MemoryRange;
using machine::Operation;

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;
constexpr ULONG chunk_sectors = 8192;  // of 4 MB

MachineConfig with_memory(std::uint64_t managed_mb, std::uint64_t above_4g_mb = 0)
{
    MachineConfig config;
    config.memory_ranges = {{mb, std::min<std::uint64_t>(managed_mb, 3000) * mb}};
    if (managed_mb > 3000)
        config.memory_ranges.push_back({4 * gb, (managed_mb - 3000) * mb});
    config.unmanaged_above_4g_bytes = above_4g_mb * mb;
    config.system_ptes = 0;
    return config;
}

TEST(PagePool, Is_laid_out_by_its_size_and_the_memory_above_4_GB)
{
    struct Row {
        ULONG size_mb;
        LONG pae_blocks;
        ULONG chunk_mb;
        LONG mdl_chunks, pae_chunks, mdl_views;
    };
    const Row rows[] = {
        {100, 5, 4, 25, 0, 8},     // too few blocks above 4 GB
        {100, -1, 4, 25, 0, 8},    // never probed
        {100, 300, 4, 0, 300, 0},  // all of it is taken
        {100, 8, 4, 17, 8, 8},     // both kinds
        {1, 0, 4, 1, 0, 1},        // rounded up to a chunk
        {17, 0, 4, 5, 0, 5},       // fewer chunks than windows
        {16383, 3000, 4, 1096, 3000, 8},
        {16384, 100, 64, 250, 6, 8},  // 100 blocks of 4 MB hold 6 large chunks
        {16384, 15, 64, 256, 0, 8},   // not even one
    };
    for (const Row& row : rows) {
        const LONG above = std::max(row.pae_blocks, LONG{0});
        MachineConfig config = with_memory(row.size_mb + 200);
        if (above != 0 && row.size_mb < 3000)
            config.unmanaged_above_4g_bytes = static_cast<std::uint64_t>(above) * 4 * mb;
        DriverPiece driver(config);
        driver.run([&] {
            Phys_Mem_Probe();
            PAE_Nums = row.pae_blocks;
            QRN_MDL* pool = MDL_Alloc(row.size_mb);
            ASSERT_TRUE(pool) << driver.machine.log().text();
            EXPECT_EQ(PAE_Nums, 0) << "the next pool gets none";
            EXPECT_EQ(pool->Chunk_Bytes, row.chunk_mb * mb);
            EXPECT_EQ(pool->MDL_Nums, row.mdl_chunks);
            EXPECT_EQ(pool->Chunk_Nums, row.mdl_chunks + row.pae_chunks);
            char message[120];
            std::snprintf(message, sizeof message, "=%uMB(%uMB),%d PAE_Nums=%d, MDL=%d %d",
                          unsigned(row.size_mb), unsigned(row.chunk_mb), int(row.mdl_chunks + row.pae_chunks),
                          int(row.pae_chunks), int(row.mdl_chunks), int(row.mdl_views));
            EXPECT_EQ(driver.machine.log().count(message), 1u) << message << driver.machine.log().text();
            EXPECT_EQ(driver.machine.log().count("Alloc_MDL"), row.mdl_chunks ? 1u : 0u);
            EXPECT_EQ(driver.machine.memory().windows(),
                      static_cast<unsigned>(row.mdl_views + std::min(row.pae_chunks, LONG{8})));
            EXPECT_EQ(MDL_Free(pool), 0);
            EXPECT_EQ(driver.machine.memory().windows(), 0u);
            EXPECT_EQ(driver.machine.memory().pages_in_use(), 0u);
            EXPECT_EQ(driver.machine.pool_bytes(), 0u);
        });
    }
}

// The window used next is the one after the last that was moved, and what one wrote another shows.
TEST(PagePool, Windows_move_on_in_turn_and_every_sector_keeps_its_content)
{
    DriverPiece driver(with_memory(200, 60));
    driver.run([&] {
        Phys_Mem_Probe();
        PAE_Nums = 15;
        QRN_MDL* pool = MDL_Alloc(140);  // 20 chunks of pages, 15 above 4 GB
        ASSERT_TRUE(pool);
        const auto map = [&](LONG chunk, ULONG sector = 0) {
            return MDL_Map(pool, static_cast<ULONG>(chunk) * chunk_sectors + sector);
        };
        const auto unuse = [&](LONG chunk) { MDL_Unuse(pool, static_cast<ULONG>(chunk) * chunk_sectors); };
        for (LONG chunk = 0; chunk < pool->Chunk_Nums; ++chunk) {
            std::memset(map(chunk, chunk_sectors - 1), chunk + 1, 512);
            unuse(chunk);
        }
        for (LONG chunk = pool->Chunk_Nums - 1; chunk >= 0; --chunk) {
            EXPECT_EQ(map(chunk, chunk_sectors - 1)[511], chunk + 1);
            unuse(chunk);
        }
        EXPECT_EQ(driver.machine.memory().windows(), 16u);

        // The last eight of the walk down are mapped, chunk 7 longest.
        UCHAR* held = map(7);
        EXPECT_EQ(map(7, 3), held + 3 * 512) << "a second holder";
        const LRU_Node* seven = pool->MDL.pNodes + pool->pSlot_Map[7];
        EXPECT_EQ(seven->InUse_Nums, 2);
        unuse(7);
        EXPECT_NE(map(8), nullptr);
        unuse(8);
        EXPECT_EQ(seven->ID, 7u) << "a held window stays";
        EXPECT_EQ(pool->pSlot_Map[8], pool->pSlot_Map[6]) << "the next one moves";
        unuse(7);
        MDL_Free(pool);
    });
}

TEST(PagePool, Memory_that_does_not_come_leaves_nothing_behind)
{
    struct Row {
        Operation operation;
        unsigned skip;
        const char* message;
        bool low_moves;
    };
    const Row rows[] = {{Operation::pages_allocate, 5, "\nQRN MDL: Alloc 5 NULL", true},
                        {Operation::pages_allocate_short, 0, "\nQRN MDL: Alloc 0 NULL", true},
                        {Operation::pages_map, 2, "\nQRN MDL: 2(-23) Map NULL", false},
                        {Operation::pool_allocate, 0, "\nQRN MDL: Alloc 00000000=100MB(4MB),25", false}};
    for (const Row& row : rows) {
        DriverPiece driver(with_memory(200));
        driver.run([&] {
            Phys_Mem_Probe();
            const ULONGLONG low = Phys_Span_Get().Low;
            driver.machine.faults().fail(row.operation, {}, row.skip);
            EXPECT_EQ(MDL_Alloc(100), nullptr);
            EXPECT_EQ(driver.machine.log().count(row.message), 1u) << driver.machine.log().text();
            EXPECT_EQ(Phys_Span_Get().Low, low + (row.low_moves ? 4 * mb : 0));
            EXPECT_EQ(driver.machine.memory().windows(), 0u);
            EXPECT_EQ(driver.machine.memory().pages_in_use(), 0u);
            EXPECT_EQ(driver.machine.pool_bytes(), 0u);
        });
    }
}

// Eight windows of 64 MB take 131072 page table entries of each kind of memory, in runs of 16384.
TEST(PagePool, Large_windows_need_more_page_table_entries_than_most_systems_have)
{
    constexpr std::uint32_t usual = 180'000, large_share_for_programs = 20'000, large_window = 16384;
    struct Row {
        ULONG size_mb;
        LONG pae_blocks;
        std::uint32_t ptes, largest_run;
        bool comes;
    };
    const Row rows[] = {
        {16384, 0, usual, usual, true},      // pages alone
        {16384, 4096, usual, usual, true},   // memory above 4 GB alone
        {16384, 2048, usual, usual, false},  // both kinds
        {16384, 0, usual, large_window - 1, false},
        {16384, 0, large_share_for_programs, large_share_for_programs, false},
        {16383, 2048, usual, usual, true},
        {16383, 2048, usual, large_window - 1, true},
        {16383, 2048, large_share_for_programs, large_share_for_programs, true},
        {61440, 15360, usual, usual, true},
    };
    for (const Row& row : rows) {
        MachineConfig config = with_memory(row.size_mb + 200);
        config.system_ptes = row.ptes;
        config.largest_pte_run = row.largest_run;
        if (row.pae_blocks != 0)
            config.memory_ranges = {{mb, 3000 * mb},
                                    {4 * gb + std::uint64_t(row.pae_blocks) * 4 * mb, 14 * gb}};
        config.unmanaged_above_4g_bytes = static_cast<std::uint64_t>(row.pae_blocks) * 4 * mb;
        DriverPiece driver(config);
        driver.run([&] {
            Phys_Mem_Probe();
            PAE_Nums = row.pae_blocks;
            QRN_MDL* pool = MDL_Alloc(row.size_mb);
            EXPECT_EQ(pool != nullptr, row.comes)
                << row.size_mb << " MB, " << row.ptes << " entries, " << row.largest_run << " in a row";
            EXPECT_EQ(driver.machine.log().count(" Map NULL"), row.comes ? 0u : 1u);
            MDL_Free(pool);
            EXPECT_EQ(driver.machine.memory().free_ptes(), row.ptes);
            EXPECT_EQ(driver.machine.memory().largest_pte_run(), row.largest_run) << "all is as it was";
            EXPECT_EQ(driver.machine.pool_bytes(), 0u);
        });
    }
}

TEST(PagePool, A_window_is_waited_for_when_all_are_held_and_tried_again_when_it_cannot_be_mapped)
{
    DriverPiece driver(with_memory(200));
    driver.run([&] {
        Phys_Mem_Probe();
        QRN_MDL* pool = MDL_Alloc(40);
        ASSERT_TRUE(pool);
        for (ULONG chunk = 0; chunk < 8; ++chunk)
            ASSERT_NE(MDL_Map(pool, chunk * chunk_sectors), nullptr);
        machine::test::start_thread([&] {
            driver.machine.sleep_ms(250);
            MDL_Unuse(pool, 3 * chunk_sectors);
        });
        const auto start = driver.machine.now_ms();
        EXPECT_NE(MDL_Map(pool, 9 * chunk_sectors), nullptr);
        EXPECT_EQ(driver.machine.now_ms() - start, 300) << driver.machine.log().text();
        EXPECT_EQ(driver.machine.log().count("\nQRN LRU: InUse_Nums Error"), 3u);

        MDL_Unuse(pool, 0);
        driver.machine.faults().fail(Operation::pages_map);
        EXPECT_EQ(MDL_Map(pool, 8 * chunk_sectors), nullptr);
        EXPECT_EQ(driver.machine.log().count("\nQRN MDL: 8(-2) Map NULL"), 1u);
        EXPECT_NE(MDL_Map(pool, 8 * chunk_sectors), nullptr) << "the next try maps it";
        MDL_Free(pool);
    });
}

}  // namespace
