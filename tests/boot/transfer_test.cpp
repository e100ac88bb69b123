// SPDX-License-Identifier: MIT
// The boot program's reads and writes against block servers over a bad network, in virtual time.
#include <deque>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "boot/medium.h"
#include "boot/pc.h"
#include "boot/transfer.h"
#include "tests/seeds.h"
#include "tests/server/workstation_model.h"

using namespace boot;
using namespace server_test;

namespace {

constexpr unsigned disk_sectors = 4096, disk_bytes = disk_sectors * 512;
constexpr std::uint8_t mirror_id[4] = {0x51, 0x52, 0x10, 0x01};

struct BlockServer {
    explicit BlockServer(const std::uint8_t (&id)[4])
    {
        server::DiskOptions options;
        std::memcpy(options.disk_id, id, 4);
        protocol.add_disk(options, store);
    }
    RecordingSink sink;
    SparseStore store{disk_bytes};
    server::Protocol protocol{sink};
    std::uint64_t silent_from_us = ~0ull, silent_to_us = ~0ull;
    unsigned heard = 0;
    // In its silence it hears, and its answers come once the PC has turned to the other server.
    bool answers_late = false;
    std::vector<Bytes> kept;
};

// The PC: its memory, its screen, its network with two servers, and time, which passes with every look for a
// datagram.
struct World {
    explicit World(std::uint32_t the_seed) : random(the_seed)
    {
        for (unsigned i = 0; i < disk_bytes; ++i)
            for (BlockServer* one : {&main, &slave})
                one->store.bytes()[i] = static_cast<std::uint8_t>(i / 512 * 7 + i / 65536 + i);
    }
    void pass(std::uint8_t host, const Bytes& datagram)
    {
        BlockServer& server = host == 1 ? main : slave;
        ++server.heard;
        const bool silent = now_us >= server.silent_from_us && now_us < server.silent_to_us;
        if (host == 2)
            line.insert(line.end(), main.kept.begin(), main.kept.end());
        if (silent && !server.answers_late)
            return;
        server.protocol.receive(peer(9, 9), datagram);
        for (Bytes& answer : server.sink.take()) {
            bytes_sent += static_cast<unsigned>(answer.size());
            if (silent)
                server.kept.push_back(std::move(answer));
            else
                put(std::move(answer));
        }
    }
    void put(Bytes answer)
    {
        const double fate = std::uniform_real_distribution<>(0, 1)(random);
        if (fate < loss || line.size() >= card_buffers)
            return;
        if (fate < 2 * loss)
            line.push_back(answer);
        if (fate < 3 * loss && fate >= 2 * loss && !line.empty())
            line.insert(line.end() - 1, std::move(answer));
        else
            line.push_back(std::move(answer));
    }
    bool right(std::uint32_t linear, unsigned lba, unsigned sectors, BlockServer& server)
    {
        return std::equal(memory.begin() + linear, memory.begin() + linear + sectors * 512,
                          server.store.bytes().begin() + lba * 512);
    }
    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }
    unsigned seconds() const { return static_cast<unsigned>(now_us / 1000000); }

    std::mt19937 random;
    BlockServer main{mirror_id}, slave{mirror_id};
    double loss = 0;
    std::size_t card_buffers = 1000;
    std::deque<Bytes> line;
    std::uint64_t now_us = 0;
    unsigned bytes_sent = 0;
    Bytes memory = Bytes((1 << 20) + 65536, 0xEE);
    std::string screen;
};
World* world;

struct Transfer : testing::Test {
    World here{7};
    formats::Boot_Param param{};

    Transfer()
    {
        world = &here;
        param.Lun_Nums = 2;
        param.Boot_Flags = formats::boot_flag_tag_slot;
        param.Rack_Level.set(formats::rack_level_status_query);
        for (unsigned lun = 0; lun < 2; ++lun) {
            formats::Disk_Info& disk = param.Disks[lun];
            std::memcpy(&disk.Disk_Id, mirror_id, 4);
            disk.Disk_Secs.set(disk_sectors);
            disk.Disk_Flags = 1;
            disk.Read_KB = disk.Write_KB = 0xF0;
            disk.Retry_Mins = 1;
            param.Main_Server[lun] = address(1);
        }
        start_sequence(0xFFF0);
        keep_servers_in(param);
        set_up(false);
    }
    static formats::ServerRecord address(std::uint8_t host)
    {
        formats::ServerRecord record{};
        const std::uint8_t ip[4] = {10, 0, 0, host};
        std::memcpy(record.Ip, ip, 4);
        record.Port.set(8520);
        return record;
    }
    void set_up(bool mirrored)
    {
        for (unsigned lun = 0; lun < 2; ++lun) {
            param.Slave_Server[lun] = mirrored ? address(2) : formats::ServerRecord{};
            set_disk(lun, make_disk_place(param, lun));
        }
    }
    bool write(unsigned lun, unsigned lba, unsigned sectors)
    {
        for (unsigned i = 0; i < sectors * 512; ++i)
            here.memory[0x20000 + i] = static_cast<std::uint8_t>(~i * 5 + lba + here.now_us);
        return transfer(lun, Direction::write, lba, sectors, 0x20000);
    }
};

TEST_F(Transfer, Reads_and_writes_of_any_length_to_any_address_are_whole)
{
    for (const unsigned sectors : {1u, 2u, 31u, 32u, 33u, 64u, 127u, 128u}) {
        const std::uint32_t linear = 0x1F203 + sectors * 16, lba = sectors * 3;
        ASSERT_TRUE(transfer(0, Direction::read, lba, sectors, linear));
        EXPECT_TRUE(here.right(linear, lba, sectors, here.main)) << sectors;
        EXPECT_EQ(here.memory[linear + sectors * 512], 0xEE) << "behind it";
        ASSERT_TRUE(write(0, lba, sectors));
        EXPECT_TRUE(here.right(0x20000, lba, sectors, here.main)) << sectors;
        std::fill(here.memory.begin(), here.memory.end(), 0xEE);
    }
    EXPECT_EQ(here.main.store.accesses_outside, 0u);
    EXPECT_LT(here.now_us, 200000u) << "nobody waited for a time-out";
    here.main.store.holes_known = true;
    ASSERT_TRUE(transfer(0, Direction::read, 2048, 100, 0x3000));
    EXPECT_EQ(std::count(here.memory.begin() + 0x3000, here.memory.begin() + 0x3000 + 51200, 0), 51200);
}

TEST_F(Transfer, Losses_doubles_and_changed_places_cost_little_more_than_the_lost_packets)
{
    for (std::uint32_t seed = 1; seed <= seeds_of(40); ++seed) {
        World bad{seed};
        world = &bad;
        bad.loss = seed % 2 == 0 ? 0.0067 : 0.05;
        unsigned sectors_read = 0;
        while (sectors_read < 20000) {
            const unsigned lba = bad.below(3900), sectors = 64 + bad.below(64);
            ASSERT_TRUE(transfer(0, Direction::read, lba, sectors, 0x12340));
            ASSERT_TRUE(bad.right(0x12340, lba, sectors, bad.main)) << "seed " << seed;
            sectors_read += sectors;
        }
        const double waste = bad.bytes_sent / (sectors_read * 512.0);
        EXPECT_LT(waste, seed % 2 == 0 ? 1.15 : 1.6) << "seed " << seed;
        EXPECT_LT(bad.seconds(), seed % 2 == 0 ? 12u : 60u) << "seed " << seed;
        for (unsigned i = 0; i < 30; ++i) {
            const unsigned lba = bad.below(3900), sectors = 1 + bad.below(128);
            for (unsigned at = 0; at < sectors * 512; ++at)
                bad.memory[0x20000 + at] = static_cast<std::uint8_t>(at * 5 + i + seed);
            ASSERT_TRUE(transfer(0, Direction::write, lba, sectors, 0x20000));
            ASSERT_TRUE(bad.right(0x20000, lba, sectors, bad.main)) << "seed " << seed;
        }
        world = &here;
    }
}

TEST_F(Transfer, A_card_with_few_buffers_gets_as_much_at_a_time_as_it_holds)
{
    here.card_buffers = 6;
    for (unsigned i = 0; i < 100; ++i) {
        ASSERT_TRUE(transfer(0, Direction::read, i * 32, 127, 0x12340));
        ASSERT_TRUE(here.right(0x12340, i * 32, 127, here.main)) << i;
    }
    EXPECT_LT(here.seconds(), 20u);
}

TEST_F(Transfer, A_read_of_LUN_0_is_never_given_up_and_others_when_the_retry_minutes_are_over)
{
    here.main.silent_from_us = 0;
    EXPECT_FALSE(transfer(1, Direction::read, 0, 127, 0x10000));
    EXPECT_NEAR(here.seconds(), 60, 5);
    EXPECT_FALSE(write(0, 0, 8));
    EXPECT_NEAR(here.seconds(), 120, 10);
    EXPECT_NE(here.screen.find("server 10.0.0.1:8520 silent since 55 s, still trying"), std::string::npos);
    here.main.silent_to_us = 1000000000;
    EXPECT_TRUE(transfer(0, Direction::read, 40, 127, 0x10000));
    EXPECT_TRUE(here.right(0x10000, 40, 127, here.main));
    EXPECT_GE(here.seconds(), 1000u);
    EXPECT_NE(here.screen.find("\nqrnboot: the server is back\r\n"), std::string::npos) << here.screen;
    EXPECT_LT(here.main.heard, 600u) << "with growing patience";
}

TEST_F(Transfer, A_mirrored_write_counts_when_both_servers_have_it)
{
    set_up(true);
    ASSERT_TRUE(write(0, 100, 100));
    EXPECT_TRUE(here.right(0x20000, 100, 100, here.main));
    EXPECT_TRUE(here.right(0x20000, 100, 100, here.slave));
    ASSERT_TRUE(transfer(0, Direction::read, 100, 100, 0x40000));
    EXPECT_EQ(here.slave.protocol.counters(0).read_requests, 0u) << "the main server is read";
    here.slave.silent_from_us = here.now_us;
    here.slave.silent_to_us = here.now_us + 15000000;
    ASSERT_TRUE(write(0, 200, 10));
    EXPECT_TRUE(here.right(0x20000, 200, 10, here.slave)) << "waited for";
}

TEST_F(Transfer, A_slave_that_stays_silent_is_given_up_for_good)
{
    set_up(true);
    here.slave.silent_from_us = 0;
    ASSERT_TRUE(write(0, 100, 64));
    EXPECT_NEAR(here.seconds(), 24, 5) << "as the driver bears it";
    EXPECT_TRUE(here.right(0x20000, 100, 64, here.main));
    EXPECT_NE(here.screen.find("qrnboot: server 10.0.0.2:8520 given up, written is only to 10.0.0.1:8520"),
              std::string::npos)
        << here.screen;
    EXPECT_FALSE(param.Slave_Server[0].names_a_server()) << "the driver must not fall back on it";
    EXPECT_TRUE(param.Slave_Server[1].names_a_server());
    here.slave.silent_to_us = 0;
    const unsigned heard = here.slave.heard, seconds = here.seconds();
    ASSERT_TRUE(write(0, 300, 64));
    EXPECT_EQ(here.slave.heard, heard);
    EXPECT_EQ(here.seconds(), seconds);
}

TEST_F(Transfer, The_slave_takes_over_from_a_silent_main_server_for_reads_and_writes)
{
    for (const bool reads : {true, false}) {
        set_up(true);
        param.Main_Server[0] = address(1);
        set_up(true);
        here.screen.clear();
        here.now_us = 0;
        here.main.silent_from_us = 0;
        here.slave.store.bytes()[60 * 512] ^= 0xFF;
        if (reads) {
            ASSERT_TRUE(transfer(0, Direction::read, 50, 127, 0x40000));
            EXPECT_TRUE(here.right(0x40000, 50, 127, here.slave));
        } else {
            ASSERT_TRUE(write(0, 50, 127));
            EXPECT_TRUE(here.right(0x20000, 50, 127, here.slave));
        }
        EXPECT_NEAR(here.seconds(), 24, 5);
        EXPECT_NE(
            here.screen.find("qrnboot: server 10.0.0.1:8520 given up, its mirror takes over: 10.0.0.2:8520"),
            std::string::npos)
            << here.screen;
        EXPECT_EQ(param.Main_Server[0].Ip[3], 2) << "the driver goes on with it";
        EXPECT_FALSE(param.Slave_Server[0].names_a_server());
        here.main.silent_from_us = ~0ull;
        const unsigned heard = here.main.heard;
        ASSERT_TRUE(write(0, 300, 10));
        EXPECT_TRUE(here.right(0x20000, 300, 10, here.slave));
        EXPECT_EQ(here.main.heard, heard) << "there is no way back";
    }
}

TEST_F(Transfer, A_late_word_of_the_lost_main_server_does_not_end_a_write_to_the_slave)
{
    set_up(true);
    here.main.silent_from_us = 0;
    here.main.answers_late = true;
    here.slave.silent_from_us = 0;
    here.slave.silent_to_us = 40000000;
    ASSERT_TRUE(write(0, 50, 8));
    EXPECT_FALSE(here.main.kept.empty());
    EXPECT_GE(here.seconds(), 40u);
    EXPECT_TRUE(here.right(0x20000, 50, 8, here.slave));
}

}  // namespace

namespace boot {

std::uint8_t receive_buffer[datagram_bytes_max];

bool send(const std::uint8_t (&ip)[4], std::uint16_t, const void* datagram, unsigned size_bytes)
{
    const auto* bytes = static_cast<const std::uint8_t*>(datagram);
    if (std::uniform_real_distribution<>(0, 1)(world->random) >= world->loss)
        world->pass(ip[3], Bytes(bytes, bytes + size_bytes));
    return true;
}

unsigned receive()
{
    world->now_us += 50;
    if (world->line.empty())
        return 0;
    const Bytes datagram = std::move(world->line.front());
    world->line.pop_front();
    std::copy(datagram.begin(), datagram.end(), receive_buffer);
    return static_cast<unsigned>(datagram.size());
}

std::uint32_t bios_ticks()
{
    return static_cast<std::uint32_t>(world->now_us / 54925);
}

void copy_out(std::uint32_t linear, const void* ours, unsigned byte_count)
{
    std::memcpy(&world->memory.at(linear), ours, byte_count);
}

void copy_in(void* ours, std::uint32_t linear, unsigned byte_count)
{
    std::memcpy(ours, &world->memory.at(linear), byte_count);
}

void zero_out(std::uint32_t linear, unsigned byte_count)
{
    std::memset(&world->memory.at(linear), 0, byte_count);
}

}  // namespace boot

extern "C" void put_char(char character)
{
    world->screen += character;
}
