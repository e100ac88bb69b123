#include <algorithm>

#include "tests/machine/kernel_test.h"

namespace machine::test {
namespace {

std::string pattern(Machine& machine, ULONG tag, int calls)
{
    std::string result;
    for (int call = 0; call < calls; ++call) {
        PVOID block = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
        result += block ? '+' : '-';
        if (block)
            ExFreePool(block);
    }
    machine.faults().clear();
    return result;
}

constexpr ULONG tag_m = 0x4D4E5251, tag_r = 0x524E5251;  // "QRNM", "QRNR"

TEST(Faults, By_count_after_a_skip_and_only_for_the_name)
{
    Machine machine;
    run_to_end(machine, [&] {
        machine.faults().fail(Operation::pool_allocate, "QRNM", 2, 3);
        EXPECT_EQ(pattern(machine, tag_m, 8), "++---+++");
        machine.faults().fail(Operation::pool_allocate, "QRNM");
        EXPECT_EQ(pattern(machine, tag_r, 3), "+++");
        machine.faults().fail(Operation::pool_allocate, {}, 1);
        EXPECT_EQ(pattern(machine, tag_r, 3), "+-+");
        EXPECT_EQ(machine.faults().hits(Operation::pool_allocate), 4u);
        EXPECT_EQ(machine.faults().hits(Operation::map_io_space), 0u);
    });
}

TEST(Faults, By_chance_the_same_for_the_same_seed)
{
    const auto draw = [](std::uint64_t seed) {
        std::string result;
        Machine machine({.seed = seed});
        run_to_end(machine, [&] {
            machine.faults().fail_randomly(Operation::pool_allocate, 0.3);
            result = pattern(machine, tag_m, 200);
        });
        return result;
    };
    const std::string first = draw(5);
    EXPECT_EQ(draw(5), first);
    EXPECT_NE(draw(6), first);
    const auto failed = std::ranges::count(first, '-');
    EXPECT_GT(failed, 30);
    EXPECT_LT(failed, 90);
}

TEST(Faults, Each_operation_fails_as_the_real_one_does)
{
    Machine machine({.unmanaged_above_4g_bytes = 1 << 23});
    run_to_end(machine, [&] {
        Faults& faults = machine.faults();
        PHYSICAL_ADDRESS address;
        address.QuadPart = 0x100400000;
        faults.fail(Operation::map_io_space, "100400000");
        EXPECT_EQ(MmMapIoSpace(address, 4096, MmCached), nullptr);
        PVOID window = MmMapIoSpace(address, 4096, MmCached);
        EXPECT_NE(window, nullptr);
        MmUnmapIoSpace(window, 4096);

        faults.fail(Operation::memory_ranges);
        EXPECT_EQ(MmGetPhysicalMemoryRanges(), nullptr);
        faults.fail(Operation::irp_allocate, "IoAllocateIrp");
        EXPECT_EQ(IoAllocateIrp(1, FALSE), nullptr);
        HANDLE handle;
        faults.fail(Operation::thread_create);
        EXPECT_FALSE(NT_SUCCESS(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr,
                                                     [](PVOID) __attribute__((stdcall)){}, nullptr)));
        UNICODE_STRING link = counted(L"\\ArcName\\x"), device = counted(L"\\Device\\x");
        faults.fail(Operation::symbolic_link, "\\ArcName\\x");
        EXPECT_FALSE(NT_SUCCESS(IoCreateSymbolicLink(&link, &device)));
        EXPECT_EQ(IoCreateSymbolicLink(&link, &device), STATUS_SUCCESS);
        OBJECT_ATTRIBUTES attributes;
        UNICODE_STRING key = counted(L"\\Registry\\Machine");
        InitializeObjectAttributes(&attributes, &key, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        faults.fail(Operation::registry_open, "\\Registry\\Machine");
        EXPECT_FALSE(NT_SUCCESS(ZwOpenKey(&handle, KEY_READ, &attributes)));
        EXPECT_EQ(ZwOpenKey(&handle, KEY_READ, &attributes), STATUS_SUCCESS);
        ZwClose(handle);
    });
}

}  // namespace
}  // namespace machine::test
