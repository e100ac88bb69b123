// SPDX-License-Identifier: MIT
// Disks with a RAM cache: what is asked of the server, what comes of its answer, and that no content is
// ever lost between RAM and server.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

using formats::kind_read;
using formats::kind_write;
using formats::sub_request;

constexpr std::uint64_t mb = 1024 * 1024, gb = 1024 * mb;
constexpr std::uint8_t cached = formats::disk_flag_ram_cache | 4;
constexpr std::uint8_t splitting = cached | formats::disk_flag_split_writes;

Plan cached_disk(std::uint32_t cache_mb, std::uint8_t flags = cached)
{
    Plan plan;
    plan.disks = {{.sectors = 65536, .flags = flags, .cache_mb = cache_mb}};
    return plan;
}

std::vector<SeenPacket> queries(const Rig& rig)
{
    std::vector<SeenPacket> all = rig.sent(sub_request, kind_read);
    std::erase_if(all, [](const SeenPacket& packet) { return packet.header().Byte_Offset.get() != 0; });
    return all;
}

TEST(CacheNegotiation, Asks_once_and_names_the_memory_in_the_tag)
{
    struct Row {
        std::uint64_t memory_mb;
        unsigned tag;  // before the key
    };
    for (const Row& row : {Row{3000, 3000}, Row{40000, 7232}, Row{500, 500}}) {
        Plan plan = cached_disk(8);
        plan.memory_ranges = {{mb, std::min<std::uint64_t>(row.memory_mb, 3000) * mb}};
        if (row.memory_mb > 3000)
            plan.memory_ranges.push_back({4 * gb, (row.memory_mb - 3000) * mb});
        Rig rig(plan);
        rig.run([&] {
            Pending one(rig), two(rig), three(rig);  // admitted by three workers
            one.write(0, 7, pattern(7, 4096));
            two.write(0, 70, pattern(70, 4096));
            three.write(0, 700, pattern(700, 4096));
            for (Pending* pending : {&one, &two, &three})
                pending->wait();
            Bytes data(4096);
            EXPECT_TRUE(rig.read(0, 7, data));
            EXPECT_EQ(data, pattern(7, 4096));
            const auto asked = queries(rig);
            ASSERT_EQ(asked.size(), 1u);
            const formats::WireHeader& header = asked[0].header();
            EXPECT_EQ(asked[0].bytes.size(), formats::request_bytes);
            EXPECT_EQ(header.Length.get(), 512);
            EXPECT_EQ(header.Pkt_Index, 0);
            EXPECT_EQ(header.Seq.get(), 0);
            EXPECT_EQ(header.Tag.get(), row.tag ^ (plan.tag_key & 0xFFFF));
            EXPECT_EQ(rig.sent(sub_request, kind_write).size(), 0u);
            EXPECT_EQ(rig.printed("\nQRN Local_Cache Info: 00000008 0 RAM cache"), 1u);
            EXPECT_EQ(rig.log_count("\nQRN Local Init: Lun:0 1 "), 1u);
        });
    }
}

TEST(CacheNegotiation, Is_a_packet_0_whatever_its_worker_ran_before)
{
    Plan plan = cached_disk(8);
    plan.disks.insert(plan.disks.begin(), DiskPlan{.sectors = 2048});
    plan.settings["RW_THREADS"] = 1;
    Rig rig(plan);
    rig.run([&] {
        Bytes data(65536);
        EXPECT_TRUE(rig.read(0, 0, data));  // eight packets
        EXPECT_TRUE(rig.write(1, 7, pattern(7, 4096)));
        const auto asked = queries(rig);
        ASSERT_EQ(asked.size(), 1u);
        EXPECT_EQ(asked[0].header().Pkt_Index, 0);
    });
}

TEST(CacheNegotiation, Answers_of_every_kind_are_survived)
{
    struct Row {
        const char* what;
        std::uint8_t flags;
        std::uint32_t cache_mb;
        const char* state;
        const char* message;
    };
    const Row rows[] = {
        {"only the low half counts", cached, 0x00010008, "1", "Disk 0 Find Obj=00000000 8MB"},
        {"a low half of nothing", cached, 0x00030000, "-1", "\nMEM_OBJ_Create: 0m 1=00000000"},
        {"no size", cached, 0, "-1", "\nQRN Local_Cache Info: 00000000 0 "},
        {"more than there is", cached, 60000, "-1", "\nQRN_MC_Init: Disk 0 OBJ_Create Error"},
        {"not wanted", 0x80, 8, "-1", "\nQRN Local_Cache Info: 00000008 0 "}};
    for (const Row& row : rows) {
        Rig rig(cached_disk(row.cache_mb, row.flags));
        rig.run([&] {
            Bytes data = pattern(100, 8192);
            EXPECT_TRUE(rig.write(0, 100, data)) << row.what;
            EXPECT_TRUE(rig.read(0, 100, data)) << row.what;
            EXPECT_EQ(data, pattern(100, 8192)) << row.what;
            EXPECT_TRUE(rig.logged(std::string("\nQRN Local Init: Lun:0 ") + row.state + " "))
                << row.what << rig.machine.log().text();
            EXPECT_TRUE(rig.logged(row.message)) << row.what << rig.machine.log().text();
            EXPECT_EQ(rig.sent(sub_request, kind_write).empty(), std::string(row.state) == "1") << row.what;
        });
    }
}

TEST(CacheNegotiation, Text_without_an_end_is_printed_to_its_end_and_no_answer_means_no_cache)
{
    for (const bool silent : {false, true}) {
        Plan plan = cached_disk(0);
        plan.disks.push_back(plan.disks[0]);  // the system disk would be waited for without end
        Rig rig(plan);
        rig.run([&] {
            rig.script([&](const SeenPacket& packet) {
                if (!packet.is(sub_request, kind_read))
                    return;
                const unsigned length = packet.header().Length.get();
                Bytes data(length, 0x41);
                if (length == 512 && silent)
                    return;
                if (length == 512)
                    std::memset(&data[132], 0, 4);
                for (const Bytes& answer : read_data_all(packet, data))
                    rig.answer(answer);
            });
            Bytes data(4096);
            EXPECT_TRUE(rig.read(1, 0, data));
            EXPECT_EQ(data, Bytes(4096, 0x41));
            EXPECT_EQ(rig.printed("\nQRN Local_Cache Info: 00000000 1094795585 " + std::string(128, 'A')),
                      silent ? 0u : 1u);
            EXPECT_EQ(rig.printed("\nQRN Local_Cache Info: 00000000 0 "), silent ? 1u : 0u);
        });
    }
}

TEST(Cache, Disks_of_one_size_share_a_memory)
{
    for (const std::uint32_t second : {8u, 16u}) {
        Plan plan = cached_disk(8);
        plan.disks.push_back({.sectors = 16385, .flags = cached, .cache_mb = second});
        Rig rig(plan);
        rig.run([&] {
            // Both at once: the set-ups come one after the other.
            Pending first(rig), other(rig);
            first.write(0, 0, pattern(0, 4096));
            other.write(1, 0, pattern(0, 4096, 2));
            first.wait();
            other.wait();
            EXPECT_TRUE(first.ok() && other.ok());
            EXPECT_EQ(rig.log_count("\nMEM_OBJ_Create: "), second == 8 ? 1u : 2u);
            EXPECT_EQ(rig.log_count("Find Obj=00000000"), second == 8 ? 1u : 2u);
            EXPECT_EQ(rig.log_count("9m Nums_8M=2(0k)"), 1u);
            Bytes data(4096);
            EXPECT_TRUE(rig.read(0, 0, data));
            EXPECT_EQ(data, pattern(0, 4096));
            EXPECT_TRUE(rig.read(1, 0, data));
            EXPECT_EQ(data, pattern(0, 4096, 2));
        });
    }
}

TEST(Cache, A_set_up_without_memory_leaves_the_disk_to_the_network)
{
    for (unsigned skip = 0; skip < 5; ++skip) {
        Rig rig(cached_disk(8));
        rig.run([&] {
            const auto pool_before = rig.machine.pool_bytes();
            rig.machine.faults().fail(machine::Operation::pool_allocate, "QRNM", skip);
            Bytes data = pattern(5, 4096);
            EXPECT_TRUE(rig.write(0, 5, data));
            EXPECT_TRUE(rig.read(0, 5, data));
            EXPECT_EQ(data, pattern(5, 4096));
            EXPECT_EQ(rig.main.content(0)[5 * 512 + 8], data[8]) << "on the server";
            EXPECT_TRUE(rig.logged("\nQRN Local Init: Lun:0 -1 00000000 0") || rig.logged("Lun:0 -1 0 0"));
            EXPECT_EQ(rig.machine.pool_bytes(), pool_before) << "given back, skip " << skip;
            EXPECT_EQ(rig.machine.memory().pages_in_use(), 0u);
        });
    }
}

// An answer to one packet must never pass for the answer to another: packets that match are the same.
void expect_packets_told_apart(const Rig& rig)
{
    std::map<Bytes, std::pair<std::uint64_t, unsigned>> places;
    for (const SeenPacket& packet : rig.packets()) {
        const formats::WireHeader& header = packet.header();
        if (packet.direction != machine::Direction::to_server || header.Sub_Code != sub_request)
            continue;
        Bytes match(packet.bytes.begin() + formats::match_offset,
                    packet.bytes.begin() + formats::match_offset + formats::match_bytes);
        match.push_back(header.Kind);
        const std::pair<std::uint64_t, unsigned> place{header.Byte_Offset.get(), header.Length.get()};
        ASSERT_EQ(places.try_emplace(match, place).first->second, place);
    }
}

// Three clients each on two disks whose chunks are many times what 4 MB hold, over a bad network, with the
// server away now and then.
TEST(Cache, Content_survives_misses_fills_and_write_backs_while_the_server_fails)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(8); ++seed) {
        Plan plan = cached_disk(4);
        plan.seed = seed;
        plan.disks[0].write_kb = static_cast<unsigned>(4 + seed);
        plan.disks.push_back({.sectors = 65536,
                              .flags = seed % 2 ? splitting : cached,
                              .read_kb = 16,
                              .cache_mb = seed % 3 ? 4u : 8u});
        plan.boot_flags = seed % 4 == 0 ? formats::boot_flag_tag_slot : 0;
        Rig rig(plan);
        rig.run([&] {
            rig.network.set_quality({.delay_min = machine::ticks_per_us,
                                     .delay_max = 9 * machine::ticks_per_ms,
                                     .loss = 0.01,
                                     .duplication = 0.2});
            Traffic traffic(rig, seed, {.operations_each = 60, .sectors_each = 16000});
            traffic.start();
            machine::Random random(seed);
            for (int outage = 0; outage < 3; ++outage) {
                rig.machine.sleep_ms(200 + random.below(3000));
                rig.main.stop();
                rig.machine.sleep_ms(random.below(5000));
                rig.main.start();
            }
            traffic.wait();
            EXPECT_EQ(traffic.failed(), 0u);
            EXPECT_GT(rig.sent(sub_request, kind_write).size(), 200u) << "hardly any write-backs";
            expect_packets_told_apart(rig);
            EXPECT_EQ(rig.log_count("QRNH_MEM_RW::Error"), 0u);
            EXPECT_LE(rig.machine.memory().windows(), 16u);
        });
    }
}

// With every block dirty a write first brings one to the server, then goes there itself. When the server is
// gone each of the two has its time, once.
TEST(Cache, A_write_that_its_dead_server_cannot_take_is_not_sent_again)
{
    constexpr double budget_ms = 67'600;  // of a disk with Retry_Mins 1
    Rig rig(cached_disk(4));
    rig.run([&] {
        for (std::uint32_t chunk = 0; chunk < 80; ++chunk)
            ASSERT_TRUE(rig.write(0, chunk * 128 + 1, pattern(chunk, 512)));
        ASSERT_GT(rig.sent(sub_request, kind_write).size(), 0u) << "blocks are left";
        rig.main.stop();
        Pending write(rig);
        write.write(0, 100 * 128 + 1, pattern(9, 512)).wait();
        EXPECT_FALSE(write.ok());
        EXPECT_GT(write.took_ms(), 1.9 * budget_ms);
        EXPECT_LT(write.took_ms(), 2.1 * budget_ms);
    });
}

TEST(Cache, Sixteen_gigabytes_are_used_through_eight_windows)
{
    Plan plan;
    plan.disks = {{.sectors = 0x4000000, .flags = cached, .read_kb = 16, .cache_mb = 16384}};
    plan.memory_ranges = {{mb, gb}, {4 * gb, 17 * gb}};
    plan.largest_pte_run = 8 * 16384;  // room for as many windows of 64 MB, and for no more
    Rig rig(plan);
    rig.run([&] {
        const auto pool_before = rig.machine.pool_bytes("QRNM");
        // A chunk of each 64 MB, and every one of them comes back.
        for (std::uint32_t i = 0; i < 500; ++i)
            ASSERT_TRUE(rig.write(0, i * 131072 + i, pattern(i, 65536, i + 1)));
        EXPECT_EQ(rig.machine.memory().windows(), 8u);
        EXPECT_LE(rig.machine.pool_bytes("QRNM") - pool_before, 16u * 259949 + 40960);
        Bytes data(65536);
        for (std::uint32_t i = 0; i < 500; ++i) {
            ASSERT_TRUE(rig.read(0, i * 131072 + i, data));
            ASSERT_EQ(data, pattern(i, 65536, i + 1)) << i;
        }
        EXPECT_EQ(rig.sent(sub_request, kind_write).size(), 0u);
        EXPECT_EQ(queries(rig).size(), rig.sent(sub_request, kind_read).size());
    });
}

}  // namespace
}  // namespace scenario
