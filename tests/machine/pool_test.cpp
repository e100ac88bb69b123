// SPDX-License-Identifier: MIT
#include <cstring>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

constexpr ULONG tag = 0x4D4E5251;  // "QRNM" in memory

UCHAR* allocate(SIZE_T bytes)
{
    return static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, bytes, tag));
}

TEST(Pool, Blocks_are_aligned_filled_and_counted_by_tag)
{
    in_machine([](Machine& machine) {
        UCHAR* small = allocate(13);
        UCHAR* large = allocate(70'000);
        for (UCHAR* block : {small, large, allocate(1), allocate(4096)})
            EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 16, 8u);
        EXPECT_NE(small[0], 0);
        EXPECT_NE(large[69'999], 0);
        EXPECT_EQ(machine.pool_bytes("QRNM"), 74'110u);
        std::memset(small, 7, 13);
        ExFreePool(small);
        EXPECT_NE(small[0], 7);
        ExFreePoolWithTag(large, tag);
        EXPECT_EQ(machine.pool_bytes("QRNM"), 4097u);
    });
}

TEST(Pool, Non_paged_pool_ends_at_its_limit)
{
    in_machine(
        [](Machine&) {
            UCHAR* first = allocate(600'000);
            ASSERT_NE(first, nullptr);
            EXPECT_EQ(allocate(400'001), nullptr);
            EXPECT_EQ(allocate(SIZE_MAX - 64), nullptr);
            EXPECT_NE(allocate(400'000), nullptr);
            EXPECT_EQ(allocate(1), nullptr);
            ExFreePool(first);
            EXPECT_NE(allocate(600'000), nullptr);
        },
        {{.nonpaged_pool_bytes_max = 1'000'000}});
}

TEST(Pool, Paged_blocks_leave_memory_at_DISPATCH_LEVEL)
{
    const auto paged = [](SIZE_T bytes) {
        return static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, bytes, tag));
    };
    in_machine([=](Machine&) {
        UCHAR* block = paged(10'000);
        block[0] = 1;
        block[9'999] = 2;
        KSPIN_LOCK lock = 0;
        locked(lock, [] {});
        EXPECT_EQ(block[0] + block[9'999], 3) << "it comes back with its contents";
        ExFreePoolWithTag(block, tag);
    });
    const auto touch_high = [=](Machine&) {
        UCHAR* block = paged(16);
        block[3] = 1;
        KeRaiseIrqlToDpcLevel();
        block[3] = 2;
    };
    const auto touch_locked = [=](Machine&) {
        UCHAR* block = paged(16);
        block[3] = 1;
        KSPIN_LOCK lock = 0;
        locked(lock, [=] { EXPECT_EQ(block[3], 1); });
    };
    EXPECT_DEATH(in_machine(touch_high), "paged pool is touched at IRQL 2");
    EXPECT_DEATH(in_machine(touch_locked), "paged pool is touched at IRQL 2");
    expect_breaks({{"freed at DISPATCH_LEVEL",
                    [=](Machine&) {
                        UCHAR* block = paged(16);
                        KeRaiseIrqlToDpcLevel();
                        ExFreePool(block);
                    },
                    "ExFreePoolWithTag of paged pool at IRQL 2"}});
}

TEST(Pool, Misuse_is_reported)
{
    expect_breaks({
        {"overrun by one byte",
         [](Machine&) {
             UCHAR* block = allocate(13);
             block[13] = 0;
             ExFreePool(block);
         },
         "pool block \"QRNM\" of 13 bytes was written behind its end"},
        {"underrun",
         [](Machine&) {
             UCHAR* block = allocate(16);
             block[-1] = 0;
             ExFreePool(block);
         },
         "written before its start"},
        {"overrun of a block that is never freed", [](Machine&) { allocate(8)[8] = 1; }, "behind its end"},
        {"write after free",
         [](Machine&) {
             UCHAR* block = allocate(64);
             ExFreePool(block);
             block[20] = 1;
         },
         "written after it was freed"},
        {"double free",
         [](Machine&) {
             UCHAR* block = allocate(64);
             ExFreePool(block);
             ExFreePool(block);
         },
         "freed twice"},
        {"inside a block", [](Machine&) { ExFreePool(allocate(64) + 8); }, "no pool block"},
        {"another tag", [](Machine&) { ExFreePoolWithTag(allocate(8), tag + 1); }, "freed with tag \"RRNM\""},
        {"forbidden",
         [](Machine& machine) {
             machine.forbid_pool_allocation(true);
             machine.forbid_pool_allocation(false);
             ExFreePool(allocate(8));
             machine.forbid_pool_allocation(true);
             allocate(16);
         },
         "the data path allocates: 16 bytes, tag \"QRNM\""},
        {"paged pool at DISPATCH_LEVEL",
         [](Machine&) {
             KeRaiseIrqlToDpcLevel();
             ExAllocatePoolWithTag(PagedPool, 8, tag);
         },
         "ExAllocatePoolWithTag at IRQL 2"},
    });
}

}  // namespace
}  // namespace machine::test
