// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>

#include "tests/machine/kernel_test.h"
#include "tests/seeds.h"

namespace machine::test {
namespace {

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;

volatile ULONG* window(std::uint64_t address, SIZE_T bytes)
{
    PHYSICAL_ADDRESS physical;
    physical.QuadPart = static_cast<LONGLONG>(address);
    return static_cast<volatile ULONG*>(MmMapIoSpace(physical, bytes, MmNonCached));
}

void undo(volatile ULONG* mapped, SIZE_T bytes)
{
    MmUnmapIoSpace(const_cast<ULONG*>(mapped), bytes);
}

TEST(Physical_memory, Windows_beyond_4_GB_show_the_same_memory_wherever_they_are_mapped)
{
    Machine machine({{.unmanaged_above_4g_bytes = 60 * gb}});
    run_to_end(machine, [&] {
        const std::uint64_t far_address = 4 * gb + 59 * gb;
        volatile ULONG* first = window(far_address, 4 * mb);
        volatile ULONG* second = window(far_address + mb + 12, 16);
        ASSERT_TRUE(first && second);
        first[(mb + 12) / 4] = 0x55AA55AA;
        EXPECT_EQ(second[0], 0x55AA55AAu);
        second[1] = 7;
        EXPECT_EQ(first[mb / 4 + 4], 7u);
        std::array<std::uint8_t, 4> bytes;
        machine.memory().read(far_address + mb + 12, bytes);
        EXPECT_EQ(bytes, (std::array<std::uint8_t, 4>{0xAA, 0x55, 0xAA, 0x55}));
        EXPECT_EQ(machine.memory().windows(), 2u);
        undo(first, 4 * mb);
        undo(second, 16);
        EXPECT_EQ(machine.memory().windows(), 0u);
    });
}

TEST(Physical_memory, Only_memory_that_is_there_can_be_mapped)
{
    Machine machine(
        {{.memory_ranges = {{mb, 511 * mb}}, .unmanaged_above_4g_bytes = 8 * mb, .system_ptes = 0}});
    run_to_end(machine, [] {
        const struct {
            std::uint64_t address;
            SIZE_T bytes;
            bool there;
        } cases[] = {{0, 0xA0000, true},
                     {0, 0xA0001, false},
                     {mb, 511 * mb, true},
                     {mb, 511 * mb + 1, false},
                     {4 * gb, 4 * mb, true},
                     {4 * gb + 4 * mb, 4 * mb, true},
                     {4 * gb + 6 * mb, 4 * mb, false}};
        for (const auto& expected : cases) {
            volatile ULONG* mapped = window(expected.address, expected.bytes);
            EXPECT_EQ(mapped != nullptr, expected.there) << std::hex << expected.address;
            if (mapped)
                undo(mapped, expected.bytes);
        }
    });
}

TEST(Physical_memory, Where_nothing_answers_writes_are_lost_and_reads_give_ones)
{
    Machine machine({{.unmanaged_above_4g_bytes = 8 * mb, .unanswered_ranges = {{4 * gb + 4 * mb, gb}}}});
    run_to_end(machine, [&] {
        volatile ULONG* const there = window(4 * gb, 4 * mb);
        volatile ULONG* const empty = window(4 * gb + 4 * mb, 4 * mb);
        ASSERT_TRUE(there && empty);
        there[3] = 5;
        for (const unsigned place : {0u, 1023u, 1024u, unsigned{mb - 1}}) {
            EXPECT_EQ(empty[place], ~0u);
            empty[place] = 0x12345678;
            EXPECT_EQ(InterlockedExchange(reinterpret_cast<volatile LONG*>(empty + place), 7), -1);
            EXPECT_EQ(empty[place], ~0u);
        }
        // One instruction may touch two pages, or many bytes of them.
        auto* const across = reinterpret_cast<volatile std::uint8_t*>(empty) + 4094;
        asm volatile("movl $1, %0" : "=m"(*reinterpret_cast<volatile std::uint8_t(*)[4]>(across)));
        std::array<std::uint8_t, 64> copied{};
        std::size_t count = copied.size();
        void *from = const_cast<std::uint8_t*>(across), *to = copied.data();
        asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(count) : : "memory");
        EXPECT_EQ(std::ranges::count(copied, 0xFF), 64);
        EXPECT_EQ(there[3], 5u);
        undo(empty, 4 * mb);
        undo(there, 4 * mb);
    });
}

TEST(Physical_memory, Nobody_cleared_what_lies_above_4_GB)
{
    Machine machine({{.unmanaged_above_4g_bytes = 10 * mb, .garbage_above_4g = true}});
    run_to_end(machine, [&] {
        // A block of 4 MB is looked at, written in the middle, and looked at again with its neighbours.
        volatile ULONG* first = window(4 * gb + 4 * mb, 4 * mb);
        EXPECT_EQ(first[0], 0xCDCDCDCD);
        first[1] = 1;
        first[mb / 2] = 2;
        undo(first, 4 * mb);
        volatile ULONG* all = window(4 * gb + 2 * mb, 8 * mb);
        volatile ULONG* again = window(4 * gb + 2 * mb, 8 * mb);
        for (volatile ULONG* mapped : {all, again}) {
            EXPECT_EQ(mapped[mb / 2], 0xCDCDCDCD);
            EXPECT_EQ(mapped[mb / 2 + 1], 1u);
            EXPECT_EQ(mapped[mb], 2u);
            EXPECT_EQ(mapped[mb / 4 * 5 - 1], 0xCDCDCDCD);
            EXPECT_EQ(mapped[2 * mb - 1], 0xCDCDCDCD);
        }
        undo(again, 8 * mb);
        undo(all, 8 * mb);
    });
}

TEST(Physical_memory, Mappings_take_neighbours_among_the_page_table_entries_that_are_left)
{
    std::set<std::uint32_t> largest_runs;
    for (std::uint64_t seed = 1; seed <= 20; ++seed)
        in_machine(
            [&](Machine& machine) {
                const PhysicalMemory& memory = machine.memory();
                ASSERT_EQ(memory.free_ptes(), 180'000u);
                const std::uint32_t largest = memory.largest_pte_run();
                largest_runs.insert(largest);
                ASSERT_GE(largest, 180'000u / 8);
                EXPECT_EQ(window(mb, (largest + 1) * 4096), nullptr);
                volatile ULONG* first = window(mb + 8, 4096);  // its end lies in a page of its own
                EXPECT_EQ(memory.free_ptes(), 180'000u - 2);
                volatile ULONG* second = window(mb, (largest - 2) * 4096);
                EXPECT_NE(second, nullptr);
                undo(first, 4096);
                undo(second, (largest - 2) * 4096);
                EXPECT_EQ(memory.largest_pte_run(), largest);
            },
            {{.seed = seed, .memory_ranges = {{mb, 2 * gb}}}});
    EXPECT_GT(largest_runs.size(), 15u);
}

TEST(System_ptes, Each_entry_is_given_once_and_comes_back)
{
    for (unsigned seed = 1; seed <= seeds_of(50); ++seed) {
        std::mt19937 random(seed);
        const std::uint32_t total = 500 + random() % 500, largest = 1 + random() % total;
        SystemPtes ptes(total, largest, seed);
        ASSERT_EQ(ptes.largest_run(), largest) << "seed " << seed;
        std::map<std::uint32_t, std::uint32_t> held;
        std::uint32_t held_count = 0;
        for (unsigned round = 0; round < 500; ++round) {
            const std::uint32_t wanted = 1 + random() % 40, had = ptes.largest_run();
            if (random() % 2 && !held.empty()) {
                auto given = std::next(held.begin(), static_cast<long>(random() % held.size()));
                ptes.give(given->first, given->second);
                held_count -= given->second;
                held.erase(given);
            } else if (const auto first = ptes.take(wanted)) {
                const auto next = held.lower_bound(*first);
                ASSERT_TRUE(next == held.end() || *first + wanted <= next->first) << "seed " << seed;
                ASSERT_TRUE(next == held.begin() ||
                            std::prev(next)->first + std::prev(next)->second <= *first)
                    << "seed " << seed;
                held.emplace(*first, wanted);
                held_count += wanted;
            } else {
                ASSERT_LT(had, wanted) << "seed " << seed;
            }
            ASSERT_EQ(ptes.free(), total - held_count) << "seed " << seed;
        }
        for (const auto& [first, count] : held)
            ptes.give(first, count);
        ASSERT_EQ(ptes.largest_run(), largest) << "seed " << seed;
    }
}

TEST(Physical_memory, A_mapping_is_undone_once_and_as_it_was_made)
{
    expect_breaks({{"length", [](Machine&) { undo(window(0, 8192), 4096); }, "another length"},
                   {"twice",
                    [](Machine&) {
                        volatile ULONG* mapped = window(0, 4096);
                        undo(mapped, 4096);
                        undo(mapped, 4096);
                    },
                    "does not exist"}});
}

}  // namespace
}  // namespace machine::test
