// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstring>
#include <random>
#include <set>

#include "machine/executive/page_allocator.h"
#include "tests/machine/kernel_test.h"
#include "tests/seeds.h"

namespace machine::test {
namespace {

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;

PHYSICAL_ADDRESS physical(std::uint64_t address)
{
    PHYSICAL_ADDRESS result;
    result.QuadPart = static_cast<LONGLONG>(address);
    return result;
}

PMDL allocate(std::uint64_t bytes, std::uint64_t low = 0, std::uint64_t high = 64 * gb)
{
    return MmAllocatePagesForMdl(physical(low), physical(high), physical(0), static_cast<SIZE_T>(bytes));
}

ULONG* map(PMDL list)
{
    return static_cast<ULONG*>(
        MmMapLockedPagesSpecifyCache(list, KernelMode, MmCached, nullptr, FALSE, HighPagePriority));
}

void free_pages_and_list(PMDL list)
{
    MmFreePagesFromMdl(list);
    ExFreePool(list);
}

TEST(Page_list, A_window_shows_the_listed_pages_in_their_order)
{
    Machine machine({{.memory_ranges = {{0, 64 * mb}, {4 * gb, 2 * gb}}}});
    run_to_end(machine, [&] {
        constexpr std::uint64_t bytes = 64 * mb;
        const PMDL lists[] = {allocate(bytes, 4 * gb), allocate(bytes, 4 * gb), allocate(4 * mb)};
        std::set<PFN_NUMBER> pages;
        ULONG gaps = 0;
        for (const PMDL list : lists) {
            ASSERT_TRUE(list);
            const PFN_NUMBER* const numbers = MmGetMdlPfnArray(list);
            const ULONG count = MmGetMdlByteCount(list) / page_bytes;
            ASSERT_EQ(count, list == lists[2] ? 1024u : 16384u);
            ULONG* const window = map(list);
            for (ULONG page = 0; page < count; ++page) {
                gaps += page > 0 && numbers[page] != numbers[page - 1] + 1;
                EXPECT_TRUE(pages.insert(numbers[page]).second) << "page " << page << " is given twice";
                window[page * page_bytes / 4 + 7] = numbers[page];
            }
            EXPECT_EQ(MmGetSystemAddressForMdlSafe(list, HighPagePriority), window);
            MmUnmapLockedPages(window, list);
        }
        EXPECT_GT(gaps, 10u) << "a mapping that ignores the list would go unseen";
        for (const PFN_NUMBER page : pages) {
            PFN_NUMBER written;
            machine.memory().read(std::uint64_t{page} * page_bytes + 28,
                                  {reinterpret_cast<std::uint8_t*>(&written), sizeof written});
            ASSERT_EQ(written, page);
        }
        ULONG* const again = map(lists[1]);
        EXPECT_EQ(again[7], *MmGetMdlPfnArray(lists[1]));
        MmUnmapLockedPages(again, lists[1]);
        for (const PMDL list : lists)
            free_pages_and_list(list);
        EXPECT_EQ(machine.memory().pages_in_use(), 0u);
        EXPECT_EQ(machine.memory().windows(), 0u);
        EXPECT_EQ(machine.pool_bytes(), 0u);
    });
}

TEST(Page_list, Pages_come_zeroed_from_where_they_are_asked_for_and_fewer_when_there_are_no_more)
{
    Machine machine({{.memory_ranges = {{0, 4 * mb}, {8 * mb, 8 * mb}, {5 * gb, 8 * mb}}}});
    run_to_end(machine, [&] {
        const struct {
            std::uint64_t bytes, low, high, got;
        } cases[] = {
            {1, 0, 64 * gb, page_bytes},
            {32 * mb, 0, 64 * gb, 19 * mb},  // all but the firmware's first megabyte
            {32 * mb, 0, 4 * gb, 11 * mb},
            {32 * mb, 4 * gb, ~0ull >> 1, 8 * mb},
            {32 * mb, 3 * mb, 9 * mb - 1, 2 * mb},
            {2 * mb, 5 * gb + 7 * mb, 64 * gb, mb},
            {4 * mb, 4 * mb, 8 * mb - 1, 0},
            {4 * mb, 6 * gb, 5 * gb, 0},
        };
        for (const auto& wanted : cases) {
            const PMDL list = allocate(wanted.bytes, wanted.low, wanted.high);
            ASSERT_EQ(list != nullptr, wanted.got != 0) << wanted.bytes << ' ' << wanted.low;
            if (!list)
                continue;
            const ULONG bytes = MmGetMdlByteCount(list);
            EXPECT_EQ(bytes, wanted.got) << wanted.bytes << ' ' << wanted.low;
            EXPECT_EQ(machine.memory().pages_in_use(), bytes / page_bytes);
            const PFN_NUMBER* const numbers = MmGetMdlPfnArray(list);
            const auto [first, last] = std::minmax_element(numbers, numbers + bytes / page_bytes);
            EXPECT_GE(std::uint64_t{*first} * page_bytes, wanted.low);
            EXPECT_LE(std::uint64_t{*last} * page_bytes, wanted.high);
            ULONG* const window = map(list);
            EXPECT_EQ(std::count(window, window + bytes / 4, 0u), bytes / 4) << "what others wrote is seen";
            std::memset(window, 0xEE, bytes);
            MmUnmapLockedPages(window, list);
            free_pages_and_list(list);
        }
    });
}

TEST(Page_list, Misuse_is_reported)
{
    using Body = std::function<void(PMDL, ULONG*)>;
    const auto with_window = [](const Body& body) {
        return [body](Machine&) {
            const PMDL list = allocate(8 * mb);
            body(list, map(list));
        };
    };
    const auto as_range = [](std::uint64_t address, SIZE_T bytes) {
        return MmMapIoSpace(physical(address), bytes, MmCached);
    };
    expect_breaks({
        {"free while mapped", with_window([](PMDL list, ULONG*) { MmFreePagesFromMdl(list); }),
         "freed while it is mapped"},
        {"map twice", with_window([](PMDL list, ULONG*) { map(list); }), "mapped twice"},
        {"another list", with_window([](PMDL, ULONG* window) {
             const PMDL other = allocate(8 * mb);
             map(other);
             MmUnmapLockedPages(window, other);
         }),
         "another shape"},
        {"as a range", with_window([](PMDL, ULONG* window) { MmUnmapIoSpace(window, 8 * mb); }),
         "another shape"},
        {"a range as a list",
         with_window([&](PMDL list, ULONG*) { MmUnmapLockedPages(as_range(2 * mb, 8 * mb), list); }),
         "another shape"},
        {"inside", with_window([](PMDL list, ULONG* window) { MmUnmapLockedPages(window + 1024, list); }),
         "does not exist"},
        {"unmap twice", with_window([](PMDL list, ULONG* window) {
             MmUnmapLockedPages(window, list);
             MmUnmapLockedPages(window, list);
         }),
         "is not mapped"},
        {"free twice", with_window([](PMDL list, ULONG* window) {
             MmUnmapLockedPages(window, list);
             MmFreePagesFromMdl(list);
             MmFreePagesFromMdl(list);
         }),
         "without pages is freed"},
        {"map after free", with_window([](PMDL list, ULONG* window) {
             MmUnmapLockedPages(window, list);
             MmFreePagesFromMdl(list);
             map(list);
         }),
         "without pages is mapped"},
        {"list before pages", with_window([](PMDL list, ULONG* window) {
             MmUnmapLockedPages(window, list);
             ExFreePool(list);
         }),
         "before its pages"},
        {"changed list", with_window([](PMDL list, ULONG* window) {
             MmUnmapLockedPages(window, list);
             MmGetMdlPfnArray(list)[2047] ^= 1;
             map(list);
         }),
         "page numbers were changed"},
        {"skip",
         [](Machine&) { MmAllocatePagesForMdl(physical(0), physical(gb), physical(page_bytes), page_bytes); },
         "with gaps"},
        {"at DISPATCH_LEVEL", with_window([](PMDL list, ULONG* window) {
             KeRaiseIrqlToDpcLevel();
             MmUnmapLockedPages(window, list);
             MmUnmapLockedPages(map(list), list);
             MmFreePagesFromMdl(list);
         }),
         "MmFreePagesFromMdl at IRQL 2"},
    });
}

TEST(Page_list, Failures_leave_nothing_behind)
{
    Machine machine({{.system_ptes = 2048, .largest_pte_run = 2048}});
    run_to_end(machine, [&] {
        const PMDL lists[] = {allocate(4 * mb), allocate(4 * mb), allocate(4 * mb)};
        ULONG* const windows[] = {map(lists[0]), map(lists[1])};
        EXPECT_EQ(map(lists[2]), nullptr) << "beyond what can be seen at once";
        MmUnmapLockedPages(windows[0], lists[0]);
        EXPECT_NE(map(lists[2]), nullptr);
        MmUnmapLockedPages(MmGetSystemAddressForMdlSafe(lists[2], HighPagePriority), lists[2]);
        MmUnmapLockedPages(windows[1], lists[1]);
        std::ranges::for_each(lists, free_pages_and_list);

        machine.faults().fail(Operation::pages_allocate, address_name(128 * mb));
        EXPECT_FALSE(allocate(4 * mb, 128 * mb));
        machine.faults().fail(Operation::pool_allocate, "Mdl ");
        EXPECT_FALSE(allocate(4 * mb));
        EXPECT_EQ(machine.memory().pages_in_use(), 0u);
        machine.faults().fail(Operation::pages_allocate_short);
        const PMDL list = allocate(4 * mb);
        EXPECT_EQ(MmGetMdlByteCount(list), 2 * mb);

        machine.faults().fail(Operation::pages_map, {}, 0, Faults::until_cleared);
        machine.faults().fail(Operation::map_io_space, {}, 1, Faults::until_cleared);
        void* const range = MmMapIoSpace(physical(mb), mb, MmCached);
        for (int tries = 0; tries < 3; ++tries) {
            EXPECT_FALSE(map(list));
            EXPECT_FALSE(MmMapIoSpace(physical(mb), mb, MmCached));
        }
        EXPECT_EQ(machine.faults().hits(Operation::pages_map), 3u);
        machine.faults().clear(Operation::pages_map);
        EXPECT_FALSE(MmMapIoSpace(physical(mb), mb, MmCached)) << "only one kind was cleared";
        MmUnmapLockedPages(map(list), list);
        MmUnmapIoSpace(range, mb);
        free_pages_and_list(list);
        EXPECT_EQ(machine.memory().window_bytes(), 0u);
    });
    Machine* const stopped = &machine;
    EXPECT_EQ(stopped->run([&] {
        const PMDL list = allocate(4 * mb);
        machine.faults().fail(Operation::pages_map);
        MmMapLockedPagesSpecifyCache(list, KernelMode, MmCached, nullptr, TRUE, HighPagePriority);
    }),
              Outcome::bug_check);
}

TEST(Page_allocator, Gives_every_free_page_of_a_range_once)
{
    constexpr std::uint64_t first = 256, pages = 600;
    for (unsigned seed = 1; seed <= seeds_of(50); ++seed) {
        std::mt19937 random(seed);
        PageAllocator allocator({{first * page_bytes, 200 * page_bytes},
                                 {(first + 100) * page_bytes, 300 * page_bytes},
                                 {(first + 450) * page_bytes, (pages - 450) * page_bytes}},
                                seed % 3 * 20, seed);
        std::set<std::uint64_t> taken;
        std::vector<PageRun> held;
        for (unsigned round = 0; round < 300; ++round) {
            if (random() % 2 && !held.empty()) {
                std::swap(held[random() % held.size()], held.back());
                for (std::uint64_t page = held.back().first; page < held.back().end(); ++page)
                    taken.erase(page);
                allocator.give(held.back());
                held.pop_back();
            } else {
                const std::uint64_t low = first + random() % pages, high = low + random() % 200;
                const std::uint64_t wanted = 1 + random() % 80;
                std::uint64_t free = 0, came = 0;
                for (std::uint64_t page = low; page <= high; ++page)
                    free += !taken.contains(page) && page < first + pages &&
                            (page < first + 400 || page >= first + 450);
                for (const PageRun& run : allocator.take(low, high, wanted)) {
                    ASSERT_TRUE(run.first >= low && run.end() <= high + 1) << "seed " << seed;
                    for (std::uint64_t page = run.first; page < run.end(); ++page, ++came)
                        ASSERT_TRUE(taken.insert(page).second) << "seed " << seed << " page " << page;
                    held.push_back(run);
                }
                ASSERT_EQ(came, std::min(free, wanted)) << "seed " << seed << " round " << round;
            }
            ASSERT_EQ(allocator.in_use(), taken.size());
        }
    }
}

}  // namespace
}  // namespace machine::test
