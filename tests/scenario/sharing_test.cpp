// SPDX-License-Identifier: MIT
// Disks share the workers: one whose server is silent, or asked for the first time, holds up its own requests
// only.
#include <gtest/gtest.h>

#include <set>

#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

using formats::disk_flag_one_slot;

bool is_for_lun(const SeenPacket& packet, unsigned lun)
{
    const auto id = disk_id(lun, false);
    return std::equal(id.begin(), id.end(), packet.header().Disk_Id);
}

using Requests = std::vector<std::unique_ptr<Pending>>;

void ask(Requests& requests, Rig& rig, unsigned lun, unsigned count, bool write)
{
    for (unsigned i = 0; i < count; ++i) {
        requests.push_back(std::make_unique<Pending>(rig));
        if (write)
            requests.back()->write(lun, 128 * i, pattern(128 * i, 65536, lun));
        else
            requests.back()->read(lun, 128 * i, 65536);
    }
}

TEST(Sharing, Silent_disks_leave_a_worker_to_the_others)
{
    struct Row {
        const char* what;
        std::uint8_t flags;  // of the silent disks
        unsigned workers;
        bool write;
    };
    for (const Row& row : {Row{"eight slots", 0x08, 8, false}, Row{"two slots, two workers", 0x02, 2, false},
                           Row{"writes", 0x24, 4, true}, Row{"writes as one chunk", 0x04, 4, true}})
        for (std::uint64_t seed = 1; seed <= seeds_of(5); ++seed) {
            SCOPED_TRACE(testing::Message() << row.what << " seed " << seed);
            Rig rig({.seed = seed,
                     .disks = {{}, {.flags = row.flags}, {.flags = row.flags}},
                     .settings = {{"RW_THREADS", row.workers}}});
            bool silent = true;
            rig.drop = [&](const SeenPacket& packet) {
                return silent && packet.direction == machine::Direction::to_server && !is_for_lun(packet, 0);
            };
            rig.run([&] {
                Requests stuck;
                ask(stuck, rig, 1, 4, row.write);
                ask(stuck, rig, 2, 4, row.write);
                rig.machine.sleep_ms(10);
                const double shows_ms = rig.now_ms() + 2 * 1111;  // by then the silence of both does
                double worst_ms = 0;
                for (unsigned i = 0; i < 20; ++i) {
                    const bool before = rig.now_ms() < shows_ms;
                    Pending read(rig);
                    read.read(0, 8 * i, 4096).wait();
                    EXPECT_TRUE(read.ok());
                    if (!before)
                        worst_ms = std::max(worst_ms, read.took_ms());
                    rig.machine.sleep_ms(200);
                }
                EXPECT_LE(rig.now_ms() - shows_ms, 20 * 201) << "a read waited longer than that";
                EXPECT_LE(worst_ms, 10);
                silent = false;
                for (const auto& request : stuck) {
                    request->wait();
                    EXPECT_TRUE(request->ok());
                }
                if (!row.write)
                    return;
                for (unsigned lun : {1u, 2u})
                    for (std::uint32_t lba = 0; lba < 512; lba += 128) {
                        Bytes back(65536);
                        ASSERT_TRUE(rig.read(lun, lba, back));
                        EXPECT_EQ(back, pattern(lba, 65536, lun));
                    }
            });
        }
}

// Nobody is there to be helped by a free worker.
TEST(Sharing, A_single_disk_has_all_workers_and_dead_disks_fail_in_time)
{
    for (unsigned disks : {1u, 2u}) {
        Rig rig({.disks = std::vector<DiskPlan>(disks, DiskPlan{.flags = 0x08}),
                 .settings = {{"RW_THREADS", 8}}});
        rig.drop = [&](const SeenPacket& packet) {
            return packet.direction == machine::Direction::to_server;
        };
        rig.run([&] {
            Requests stuck;
            ask(stuck, rig, disks - 1, 1, false);
            rig.machine.sleep_ms(5000);
            std::set<unsigned> workers;
            rig.forget_packets();
            rig.machine.sleep_ms(2000);
            for (const SeenPacket& packet : rig.packets())
                workers.insert(packet.header().Worker_Byte & 7u);
            EXPECT_EQ(workers.size(), disks == 1 ? 8u : 7u);
            if (disks == 1)
                return;
            stuck[0]->wait();
            EXPECT_FALSE(stuck[0]->ok());
            EXPECT_LE(stuck[0]->took_ms(), 2 * 70'000) << "the chunk that had no worker, after the others";
        });
    }
}

// The system disk of a network boot is waited for without end.
TEST(Sharing, Silent_disks_take_turns)
{
    for (unsigned workers : {2u, 4u})
        for (std::uint64_t seed = 1; seed <= seeds_of(10); ++seed) {
            SCOPED_TRACE(testing::Message() << workers << " workers, seed " << seed);
            Rig rig({.seed = seed,
                     .disks = std::vector<DiskPlan>(3, DiskPlan{.flags = static_cast<std::uint8_t>(workers)}),
                     .settings = {{"RW_THREADS", workers}}});
            rig.run([&] {
                Requests endless;
                // Either every disk has yet to be asked about its cache, or chunks wait for a worker.
                Bytes sector(512);
                for (unsigned lun = 0; seed % 2 == 0 && lun < 3; ++lun)
                    ASSERT_TRUE(rig.read(lun, 0, sector));
                rig.drop = [](const SeenPacket& packet) {
                    return packet.direction == machine::Direction::to_server;
                };
                ask(endless, rig, 0, 4, false);
                rig.machine.sleep_ms(seed * 250);  // the others come before its first time-out, or later
                Pending one(rig), two(rig);
                one.read(1, 0, 512);
                two.write(2, 0, Bytes(512));
                rig.machine.sleep_ms(8 * 70'000);
                EXPECT_TRUE(one.done() && !one.ok());
                EXPECT_TRUE(two.done() && !two.ok());
                rig.drop = nullptr;
                for (const auto& request : endless) {
                    request->wait();
                    EXPECT_TRUE(request->ok());
                }
                one.wait();
                two.wait();
            });
        }
}

TEST(Sharing, Negotiation_holds_up_its_own_disk_only)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(10); ++seed)
        for (std::uint8_t retry_mins : {std::uint8_t{0}, std::uint8_t{1}}) {
            Rig rig({.seed = seed, .disks = {{}, {.flags = disk_flag_one_slot, .retry_mins = retry_mins}}});
            bool silent = true;
            rig.drop = [&](const SeenPacket& packet) {
                return silent && packet.direction == machine::Direction::to_server && is_for_lun(packet, 1);
            };
            rig.run([&] {
                Requests stuck;
                ask(stuck, rig, 1, 12, false);
                rig.machine.sleep_ms(10);
                for (unsigned i = 0; i < 10; ++i) {
                    Pending read(rig);
                    read.read(0, 8 * i, 4096).wait();
                    EXPECT_TRUE(read.ok());
                    EXPECT_LE(read.took_ms(), 10);
                    rig.machine.sleep_ms(500);
                }
                silent = false;
                for (const auto& request : stuck) {
                    request->wait();
                    EXPECT_TRUE(request->ok());
                }
            });
            EXPECT_EQ(rig.log_count("QRN Local_Cache Info:"), 1u);
        }
}

}  // namespace
}  // namespace scenario
