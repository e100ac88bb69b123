// SPDX-License-Identifier: MIT
#include "station/nbd_connection.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>

#include "tests/station/memory_device.h"
#include "tests/station/nbd_client_bytes.h"

using namespace station;
using namespace station_test;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t disk_bytes = 8 << 20;

// A connection in its thread on one end of a socket pair, and a client on the other.
class Connection : public testing::Test {
protected:
    void start(ConnectionLimits limits = {})
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = UniqueFd(ends[0]);
        const timeval patience{20, 0};  // a lost reply fails a test instead of hanging it
        setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        for (std::size_t i = 0; i < device->disk.size(); ++i)
            device->disk[i] = static_cast<std::uint8_t>(i / 512 * 7 + i);
        exports.set({{"lun0", "test disk", device, read_only, flushes}});
        connection.emplace(UniqueFd(ends[1]), exports, limits);
        serving = std::thread([this] { connection->run(); });
    }
    void start_and_choose(ConnectionLimits limits = {})
    {
        start(limits);
        EXPECT_EQ(receive(18).size(), 18u);
        send(Writer().u32(3).add(option(1, Writer().text("lun0"))));
        const unsigned flags = read_only ? 259 : flushes ? 365 : 321;
        EXPECT_EQ(receive(10),
                  Bytes(Writer()
                            .u64(disk_bytes)
                            .u16(static_cast<std::uint16_t>(flags + (read_only && flushes ? 4 : 0)))));
    }
    // With structured replies and block status.
    void start_with_chunks()
    {
        start();
        receive(18);
        send(Writer()
                 .u32(3)
                 .add(option(8))
                 .add(option(10, contexts("lun0", {"base:allocation"})))
                 .add(option(1, Writer().text("lun0"))));
        EXPECT_EQ(receive(20 + 20 + 19 + 20 + 10).size(), 89u);
    }
    void TearDown() override
    {
        client = UniqueFd();
        if (serving.joinable())
            serving.join();
    }

    void send(const Bytes& bytes)
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t now = ::send(client.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(now, 0);
            sent += static_cast<std::size_t>(now);
        }
    }
    // So many bytes, fewer only when the server has closed.
    Bytes receive(std::size_t count)
    {
        Bytes bytes(count);
        const ssize_t got = recv(client.get(), bytes.data(), count, MSG_WAITALL);
        EXPECT_GE(got, 0) << "no answer";
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return bytes;
    }
    Bytes sectors(std::uint64_t offset, std::size_t bytes) const
    {
        const auto at = device->disk.begin() + static_cast<std::ptrdiff_t>(offset);
        return {at, at + static_cast<std::ptrdiff_t>(bytes)};
    }
    bool nothing_to_read_for(std::chrono::milliseconds time) const
    {
        pollfd polled{client.get(), POLLIN, 0};
        return poll(&polled, 1, static_cast<int>(time.count())) == 0;
    }

    bool read_only = false, flushes = true;
    std::shared_ptr<MemoryDevice> device = std::make_shared<MemoryDevice>(disk_bytes);
    Exports exports;
    std::optional<NbdConnection> connection;
    std::thread serving;
    UniqueFd client;
};

}  // namespace

TEST_F(Connection, Memory_and_requests_in_flight_are_bounded_by_not_reading)
{
    start_and_choose({.buffer_bytes = 64 << 10, .requests_in_flight = 8});
    device->hold(true);
    Writer requests;
    for (std::uint64_t i = 0; i < 12; ++i)
        requests.add(request(0, i, i * 16384, 16384));  // four of them fill the memory
    for (std::uint64_t i = 12; i < 32; ++i)
        requests.add(request(3, i, 0, 0));  // eight of them fill the slots
    send(requests);
    device->wait_until_held(4);
    EXPECT_TRUE(nothing_to_read_for(50ms));
    EXPECT_EQ(device->held_count(), 4u);
    for (std::uint64_t i = 0; i < 32; ++i) {
        device->wait_until_held(1);
        EXPECT_LE(device->held_count(), 8u);
        device->finish(0);
        ASSERT_EQ(receive(16), reply(i));
        if (i < 12) {
            ASSERT_EQ(receive(16384), sectors(i * 16384, 16384));
        }
    }
}

TEST_F(Connection, Failed_and_refused_requests_get_their_error_and_the_next_one_is_served)
{
    constexpr std::uint32_t io = 5, invalid = 22, no_space = 28;
    start_and_choose();
    device->fails = true;
    send(request(0, 1, 0, 1024));
    EXPECT_EQ(receive(16), reply(1, io)) << "and no data";
    send(Writer().add(request(1, 2, disk_bytes, 512)).zeroes(512));
    EXPECT_EQ(receive(16), reply(2, no_space));
    send(request(5, 3, 0, 4096));  // what no server of this kind knows
    EXPECT_EQ(receive(16), reply(3, invalid));
    send(request(6, 4, 4096, disk_bytes - 4096));
    EXPECT_EQ(receive(16), reply(4, io));
    device->fails = false;
    send(request(0, 5, 512, 512));
    EXPECT_EQ(receive(16), reply(5));
    EXPECT_EQ(receive(512), sectors(512, 512));
}

TEST_F(Connection, Structured_replies_carry_data_holes_and_errors)
{
    constexpr std::uint16_t one_chunk = 4;
    start_with_chunks();
    std::fill_n(device->disk.begin() + 65536, 65536, std::uint8_t{0});
    send(request(0, 1, 512, 1024));
    EXPECT_EQ(receive(28 + 1024), chunk(1, 1, Writer().u64(512).add(sectors(512, 1024))));
    send(request(0, 2, 65536, 65536, one_chunk));
    EXPECT_EQ(receive(32), chunk(2, 2, Writer().u64(65536).u32(65536)));
    send(request(0, 3, disk_bytes, 512));
    EXPECT_EQ(receive(26), chunk(3, 0x8001, Writer().u32(22).u16(0)));
    send(Writer().add(request(1, 4, 0, 512)).zeroes(512).add(request(3, 5, 0, 0)));
    EXPECT_EQ(receive(16), reply(4));
    EXPECT_EQ(receive(16), reply(5));
    device->fails = true;
    send(request(0, 6, 0, 512));
    EXPECT_EQ(receive(26), chunk(6, 0x8001, Writer().u32(5).u16(0)));
    send(request(7, 7, 0, 512));
    EXPECT_EQ(receive(26), chunk(7, 0x8001, Writer().u32(5).u16(0)));
}

TEST_F(Connection, Block_status_tells_zeros_exactly_and_data_by_the_megabyte)
{
    constexpr std::uint32_t mb = 1 << 20, kb = 1 << 10;
    constexpr std::uint16_t one_extent = 8;
    start_with_chunks();
    const auto zero = [&](std::size_t from, std::size_t to) {
        std::fill(device->disk.begin() + static_cast<std::ptrdiff_t>(from),
                  device->disk.begin() + static_cast<std::ptrdiff_t>(to), std::uint8_t{0});
    };
    zero(mb, 3 * mb + 5 * kb);
    zero(5 * mb + 64 * kb, 6 * mb);
    zero(disk_bytes - 512, disk_bytes);
    struct {
        const char* what;
        std::uint32_t offset, length, bytes, flags;
    } const cases[] = {
        {"data up to the next megabyte", 512, 7 * mb, mb - 512, 0},
        {"zeros up to the block with data", mb, 7 * mb, 2 * mb + 4 * kb, 2},
        {"zeros up to the end of the question", mb + 512, mb, mb, 2},
        {"too few zeros before data", 3 * mb + 4 * kb, mb, mb - 4 * kb, 0},
        {"data, and zeros beyond what is looked at", 5 * mb, 2 * mb, mb, 0},
        {"those zeros, asked for", 5 * mb + 64 * kb, 2 * mb, mb - 64 * kb, 2},
        {"the last sector", disk_bytes - 512, 512, 512, 2},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        send(request(7, 9, each.offset, each.length, one_extent));
        EXPECT_EQ(receive(32), chunk(9, 5, Writer().u32(1).u32(each.bytes).u32(each.flags)));
    }
    send(request(7, 10, disk_bytes - 512, 1024));
    EXPECT_EQ(receive(26), chunk(10, 0x8001, Writer().u32(22).u16(0)));
}

TEST_F(Connection, Zeros_need_no_payload_and_no_memory)
{
    start_and_choose({.buffer_bytes = 4096});
    send(request(6, 1, 512, disk_bytes - 1024));
    EXPECT_EQ(receive(16), reply(1));
    const auto begin = device->disk.begin();
    EXPECT_EQ(std::count(begin + 512, device->disk.end() - 512, 0), disk_bytes - 1024);
    EXPECT_NE(std::count(begin, begin + 512, 0), 512);
    EXPECT_NE(std::count(device->disk.end() - 512, device->disk.end(), 0), 512);
}

TEST_F(Connection, Client_that_dies_midway_costs_only_its_connection)
{
    start_and_choose();
    device->hold(true);
    for (std::uint64_t i = 0; i < 10; ++i)
        send(request(0, i, i * 65536, 65536));
    send(Writer().add(request(1, 10, 0, 65536)).zeroes(1000));  // in the middle of a payload
    device->wait_until_held(10);
    client = UniqueFd();
    for (int i = 0; i < 10; ++i)
        device->finish(0);
    serving.join();
    EXPECT_EQ(device->held_count(), 0u);
}

TEST_F(Connection, Server_closes_on_disconnect_wrong_magic_and_a_handshake_that_takes_too_long)
{
    for (const Bytes& last : {request(2, 1, 0, 0), Bytes(Writer().u32(0x12345678).zeroes(24))}) {
        start_and_choose();
        send(last);
        EXPECT_EQ(receive(1), Bytes{});
        TearDown();
    }
    start({.handshake_time = 30ms});
    receive(18);
    send(Writer().u32(3));
    EXPECT_EQ(receive(1), Bytes{});
}

TEST_F(Connection, Stop_answers_what_is_in_flight_and_abandon_ends_a_deaf_client)
{
    start_and_choose();
    device->hold(true);
    send(request(0, 1, 0, 4096));
    device->wait_until_held(1);
    connection->stop();
    send(request(0, 2, 0, 4096));
    device->finish(0);
    EXPECT_EQ(receive(16), reply(1));
    EXPECT_EQ(receive(4096), sectors(0, 4096));
    EXPECT_EQ(receive(1), Bytes{});
    TearDown();

    device->hold(false);
    start_and_choose();
    send(request(0, 1, 0, disk_bytes));  // more than the socket holds, and nobody reads
    EXPECT_FALSE(nothing_to_read_for(2000ms));
    connection->stop();
    connection->abandon();
    serving.join();
}

TEST_F(Connection, Random_reads_and_writes_finished_in_random_order_agree_with_a_model)
{
    start_and_choose();
    device->hold(true);
    std::mt19937 random(7);
    Bytes model = device->disk;
    std::map<std::uint64_t, std::pair<std::size_t, std::size_t>> reads;  // cookie: offset, bytes
    for (int round = 0; round < 30; ++round) {
        // Within a round no two requests touch the same region, so any order gives the same result.
        Writer requests;
        for (std::uint64_t region = 0; region < 16; ++region) {
            const std::size_t bytes = 512 * (1 + random() % 64);
            const std::size_t offset =
                static_cast<std::size_t>(region) * (disk_bytes / 16) + random() % 128 * 512;
            if (random() % 2) {
                requests.add(request(0, region, offset, bytes));
                reads[region] = {offset, bytes};
            } else {
                Bytes data(bytes);
                std::generate(data.begin(), data.end(), [&] { return static_cast<std::uint8_t>(random()); });
                requests.add(request(1, region, offset, bytes)).add(data);
                std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
            }
        }
        send(requests);
        device->wait_until_held(16);
        for (std::size_t left = 16; left > 0; --left)
            device->finish(random() % left);
        for (int i = 0; i < 16; ++i) {
            const Bytes header = receive(16);
            ASSERT_EQ(header.size(), 16u);
            const std::uint64_t cookie = header[15];
            ASSERT_EQ(header, reply(cookie));
            if (const auto read = reads.extract(cookie)) {
                const auto [offset, bytes] = read.mapped();
                const auto at = model.begin() + static_cast<std::ptrdiff_t>(offset);
                ASSERT_EQ(receive(bytes), Bytes(at, at + static_cast<std::ptrdiff_t>(bytes)));
            }
        }
    }
    EXPECT_EQ(device->disk, model);
}

TEST_F(Connection, Client_that_has_gone_half_and_takes_nothing_is_cut_off)
{
    start_and_choose({.farewell_time = 50ms});
    Writer requests;
    for (std::uint64_t i = 0; i < 8; ++i)
        requests.add(request(0, i, 0, 1 << 20));  // more than the socket holds
    send(requests);
    shutdown(client.get(), SHUT_WR);
    serving.join();
}

TEST_F(Connection, Client_that_has_gone_half_and_goes_on_reading_gets_every_reply)
{
    start_and_choose({.farewell_time = 10'000ms});
    Writer requests;
    for (std::uint64_t i = 0; i < 8; ++i)
        requests.add(request(0, i, 0, 1 << 20));
    send(requests);
    shutdown(client.get(), SHUT_WR);
    for (std::uint64_t i = 0; i < 8; ++i) {
        ASSERT_EQ(receive(16), reply(i));
        ASSERT_EQ(receive(1 << 20), sectors(0, 1 << 20));
    }
    EXPECT_TRUE(receive(1).empty());
}

TEST_F(Connection, Writes_to_a_read_only_disk_fail_at_once)
{
    read_only = true;
    start_and_choose();
    const Bytes before = device->disk;
    send(Writer()
             .add(request(1, 1, 0, 512))
             .add(Bytes(512))
             .add(request(6, 2, 0, 512))
             .add(request(0, 3, 0, 512)));
    EXPECT_EQ(receive(16), reply(1, 1));
    EXPECT_EQ(receive(16), reply(2, 1));
    EXPECT_EQ(receive(16), reply(3));
    EXPECT_EQ(receive(512), sectors(0, 512));
    EXPECT_EQ(device->disk, before);
}

TEST_F(Connection, Flush_is_refused_where_it_is_not_offered)
{
    flushes = false;
    start_and_choose();
    send(request(3, 1, 0, 0));
    EXPECT_EQ(receive(16), reply(1, 22));
}

TEST_F(Connection, Handshake_without_memory_ends_the_connection_and_nothing_else)
{
    struct Exhausted : MemoryDevice {
        using MemoryDevice::MemoryDevice;
        std::uint64_t size_bytes() const override { throw std::bad_alloc(); }
    };
    device = std::make_shared<Exhausted>(disk_bytes);
    start();
    receive(18);
    send(Writer().u32(3).add(option(1, Writer().text("lun0"))));
    EXPECT_TRUE(receive(1).empty());
}

TEST_F(Connection, What_others_hold_of_the_memory_is_waited_for_and_small_requests_are_not)
{
    BufferBudget budget(2 << 20);
    BufferPool other(32 << 20, &budget);
    BufferPool::Buffer held = other.take(2 << 20);
    start_and_choose({.budget = &budget});
    send(request(0, 1, 0, 512));
    EXPECT_EQ(receive(16 + 512).size(), 16u + 512u);
    send(request(0, 2, 0, 4 << 20));
    EXPECT_TRUE(nothing_to_read_for(50ms)) << "4 MB with 1 MB of its own and 1 MB of the budget";
    EXPECT_FALSE(budget.take((1 << 20) + 1));
    other.give_back(std::move(held));
    other.trim();
    budget.give_back(2 << 20);
    EXPECT_EQ(receive(16 + (4 << 20)).size(), 16u + (4u << 20));
}
