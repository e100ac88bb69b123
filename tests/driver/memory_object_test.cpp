// SPDX-License-Identifier: MIT
// The store of data blocks: its geometry, its two-part ring, its records and entries.
#include "driver/cache/memory_object.h"

#include <vector>

#include "driver/state/memory_probe.h"
#include "machine/executive/executive.h"
#include "machine/scheduler/random.h"
#include "tests/driver/driver_test.h"

namespace {

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;

machine::MachineConfig with_memory(std::uint64_t above_4g)
{
    machine::MachineConfig config;
    config.memory_ranges = {{mb, 400 * mb}, {4 * gb, above_4g}};
    config.system_ptes = 0;
    return config;
}

TEST(MemoryObject, Divides_its_pool_into_records_entries_and_blocks)
{
    struct Row {
        ULONG size_mb;
        LONG data_blocks;
    };
    const Row rows[] = {{1, 62}, {256, 4061}, {16384, 259949}};
    for (const Row& row : rows) {
        DriverPiece driver(with_memory(17 * gb));
        driver.run([&] {
            Phys_Mem_Probe();
            QRNH_OBJ_MEM object{};
            ASSERT_EQ(object.Create(row.size_mb, 1), 0) << driver.machine.log().text();
            EXPECT_EQ(object.LRU_Nums, row.data_blocks);
            EXPECT_EQ(object.p8M_List, 524u);
            EXPECT_EQ(object.Ent_Get(524)->Next_Free, 1048u);
            object.Ent_Put(524);
            const ULONG last = 524 * static_cast<ULONG>(row.data_blocks);
            EXPECT_EQ(object.Ent_Get(last)->Next_Free, 0u);
            object.Ent_Put(last);

            // The outermost records, entries and blocks share no byte.
            LRU_Node* ends[] = {object.pLRU_Nodes, object.pLRU_Nodes + row.data_blocks - 1};
            std::vector<UCHAR> block(65536, 0xDB), back(65536);
            for (LRU_Node* node : ends)
                EXPECT_EQ(object.Write(node, 0, block.data(), 65536), 65536);
            for (LRU_Node* node : ends) {
                object.Rec_Get(node)->Sec_Bits[15] = 0xEC;
                object.Rec_Put(node);
            }
            object.Ent_Get(last)->Nums = 77;
            object.Ent_Put(last);
            for (LRU_Node* node : ends) {
                EXPECT_EQ(object.Read(node, 0, back.data(), 65536), 65536);
                EXPECT_EQ(back, block);
                EXPECT_EQ(object.Rec_Get(node)->Sec_Bits[15], 0xEC);
                object.Rec_Put(node);
            }
            object.Destory();
            EXPECT_EQ(driver.machine.pool_bytes(), 0u);
        });
    }
}

// Memory above 4 GB comes with whatever a system before left there.
TEST(MemoryObject, No_block_is_listed_at_first_whatever_its_memory_held)
{
    machine::MachineConfig config = with_memory(gb);
    config.unmanaged_above_4g_bytes = 64 * mb;
    config.garbage_above_4g = true;
    DriverPiece driver(config);
    driver.run([&] {
        Phys_Mem_Probe();
        PAE_Nums = 16;
        QRNH_OBJ_MEM object{};
        ASSERT_EQ(object.Create(64, 1), 0) << driver.machine.log().text();
        ASSERT_EQ(object.pQRN_MDL->MDL_Nums, 0);
        for (LONG b = 0; b < object.LRU_Nums; ++b) {
            ASSERT_EQ(object.Rec_Get(object.pLRU_Nodes + b)->Slot_Ref, 0u) << b;
            object.Rec_Put(object.pLRU_Nodes + b);
        }
        object.Destory();
    });
}

TEST(MemoryObject, Fails_without_ring_and_waits_for_a_window)
{
    DriverPiece driver(with_memory(gb));
    driver.run([&] {
        Phys_Mem_Probe();
        QRNH_OBJ_MEM object{};
        driver.machine.faults().fail(machine::Operation::pool_allocate, "QRNM", 1);
        EXPECT_EQ(object.Create(64, 1), -3);
        EXPECT_EQ(driver.machine.pool_bytes(), 0u);
        driver.machine.faults().fail(machine::Operation::pages_allocate);
        EXPECT_EQ(object.Create(64, 1), -1);

        ASSERT_EQ(object.Create(64, 1), 0);
        driver.machine.faults().fail(machine::Operation::pages_map, {}, 0, 3);
        const auto start = driver.machine.now_ms();
        UCHAR byte[512] = {1};
        EXPECT_EQ(object.Write(object.pLRU_End, 127, byte, 512), 512);
        EXPECT_EQ(driver.machine.now_ms() - start, 300);
        // 16 chunks of 4 MB, the last sector of the last block
        EXPECT_EQ(driver.machine.log().count("\nQRNH_Oft_Buffer: 1FFFF NULL"), 3u)
            << driver.machine.log().text();
        object.Destory();
    });
}

// What the ring promises, seen from outside: M0 to M1 cold, M1 to M2 hot, the end before the beginning.
void expect_two_parts(const QRNH_OBJ_MEM& object, LONG hot_nums)
{
    ASSERT_EQ(object.pLRU_End->Next, object.pLRU_Cur);
    LONG nums = 0, hot = 0;
    const LRU_Node* node = object.pLRU_Cur;
    do {
        hot += node == object.pLRU_Mid || hot > 0;
        ASSERT_EQ(node->Next->Prev, node);
        ASSERT_LE(node->ID_Cnts, hot > 0 ? 1 : 0);
        node = node->Next;
    } while (++nums <= object.LRU_Nums && node != object.pLRU_Cur);
    ASSERT_EQ(nums, object.LRU_Nums) << "every block once";
    ASSERT_EQ(hot, hot_nums);
}

TEST(MemoryObject, Ring_keeps_a_fifth_hot_and_gives_cold_blocks_first)
{
    DriverPiece driver(with_memory(gb));
    driver.run([&] {
        Phys_Mem_Probe();
        QRNH_OBJ_MEM object{};
        ASSERT_EQ(object.Create(4, 1), 0);
        const LONG n = object.LRU_Nums;
        LRU_Node* nodes = object.pLRU_Nodes;
        EXPECT_EQ(object.LRU_Touch(nodes), nodes);
        EXPECT_EQ(object.pLRU_Cur, nodes + 1);
        EXPECT_EQ(object.pLRU_Mid, nodes + 4 * n / 5 + 1);
        EXPECT_EQ(object.pLRU_End, nodes);
        object.LRU_Touch(nodes);
        EXPECT_EQ(object.pLRU_End, nodes) << "the hot tail stays";
        LRU_Node* boundary = object.pLRU_Mid;
        object.LRU_Touch(boundary);
        EXPECT_EQ(object.pLRU_Mid, boundary) << "the cold boundary stays";

        machine::Random random(3);
        for (int round = 0; round < 5000; ++round) {
            // As in use: the block that is taken next, or one that has been used before.
            LRU_Node* node = LRU_Get(object.pLRU_Cur);
            if (random.chance(0.7) && round > 0) {
                LRU_Node* used = nodes + random.below(static_cast<std::uint32_t>(std::min<LONG>(round, n)));
                if (used->State)
                    node = used;
            }
            node->State = 1;
            object.LRU_Touch(node);
            ASSERT_NO_FATAL_FAILURE(expect_two_parts(object, n - 4 * n / 5)) << "round " << round;
        }
        EXPECT_EQ(driver.machine.log().count("QRN LRU:"), 0u);
        object.Destory();
    });
}

}  // namespace
