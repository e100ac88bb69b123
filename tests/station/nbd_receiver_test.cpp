// SPDX-License-Identifier: MIT
#include "station/nbd_receiver.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "tests/seeds.h"
#include "tests/station/nbd_client_bytes.h"

using namespace station;
using namespace station_test;
using Event = NbdReceiver::Event;

namespace {

constexpr std::uint64_t disk_bytes = 100 << 20;
constexpr std::uint32_t payload_max = 64 << 10;

// Drives a receiver as a connection does, with the stream arriving in pieces. Writes down what came.
struct Client {
    NbdReceiver receiver;
    std::vector<std::string> events;
    Bytes payload;
    bool broken = false;

    void take_events()
    {
        for (;;) {
            switch (receiver.next()) {
            case Event::need_bytes:
                return;
            case Event::broken:
                broken = true;
                return;
            case Event::request:
                settle();
                break;
            case Event::payload:
                events.push_back("payload " + std::string(payload.begin(), payload.end()));
                break;
            }
        }
    }
    void settle()
    {
        const NbdRequest request = receiver.request();
        ASSERT_EQ(receiver.next(), Event::request) << "a request waits until it is settled";
        events.push_back("request " + std::to_string(request.cookie));
        payload.clear();
        if (request.payload_bytes() == 0)
            return receiver.no_payload();
        if (check_request(request, {disk_bytes}) || request.payload_bytes() > payload_max)
            return receiver.skip_payload();
        payload.resize(request.payload_bytes());
        receiver.payload_into(payload.data());
    }
    // What recvmsg would put into the spaces, at most `piece` bytes at once.
    void arrive(std::span<const std::uint8_t> bytes, std::size_t piece)
    {
        while (!bytes.empty() && !broken) {
            const auto spaces = receiver.spaces();
            const auto now = bytes.first(std::min(piece, bytes.size()));
            const auto to_payload = now.first(std::min(now.size(), spaces.payload.size()));
            const auto behind = now.subspan(to_payload.size());
            const auto to_headers = behind.first(std::min(behind.size(), spaces.headers.size()));
            std::copy(to_payload.begin(), to_payload.end(), spaces.payload.begin());
            std::copy(to_headers.begin(), to_headers.end(), spaces.headers.begin());
            const std::size_t filled = to_payload.size() + to_headers.size();
            ASSERT_NE(filled, 0u) << "there is always room for the next bytes";
            receiver.filled(filled);
            bytes = bytes.subspan(filled);
            take_events();
        }
    }
};

Bytes pattern(std::size_t bytes)
{
    Bytes data(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<std::uint8_t>('a' + i % 26);
    return data;
}

}  // namespace

TEST(NbdRequest, Check_answers_what_the_protocol_asks_for)
{
    constexpr std::uint32_t invalid = 22, no_space = 28;
    constexpr std::uint32_t most = 32 << 20;
    const struct {
        const char* name;
        NbdRequest request;
        std::uint32_t error;
    } cases[] = {
        {"first sector", {0, nbd::Command::read, 0, 0, 512}, 0},
        {"last sector", {0, nbd::Command::write, 0, disk_bytes - 512, 512}, 0},
        {"the largest request", {0, nbd::Command::read, 0, 512, most}, 0},
        {"more than the largest request", {0, nbd::Command::read, 0, 0, most + 512}, invalid},
        {"more than the largest request", {0, nbd::Command::write, 0, 0, 0xFFFFFE00}, invalid},
        {"nothing at all", {0, nbd::Command::read, 0, 0, 0}, invalid},
        {"part of a sector", {0, nbd::Command::read, 0, 0, 511}, invalid},
        {"from within a sector", {0, nbd::Command::write, 0, 100, 512}, invalid},
        {"read across the end", {0, nbd::Command::read, 0, disk_bytes - 512, 1024}, invalid},
        {"write across the end", {0, nbd::Command::write, 0, disk_bytes - 512, 1024}, no_space},
        {"write at the end", {0, nbd::Command::write, 0, disk_bytes, 512}, no_space},
        {"offset and length wrap around", {0, nbd::Command::write, 0, 0xFFFFFFFFFFFFFE00, 512}, no_space},
        {"flush", {0, nbd::Command::flush, 0, 0, 0}, 0},
        {"flush of a range", {0, nbd::Command::flush, 0, 512, 512}, invalid},
        {"write with FUA", {1, nbd::Command::write, 0, 0, 512}, 0},
        {"zeros with FUA, no hole", {3, nbd::Command::write_zeroes, 0, 0, 512}, 0},
        {"TRIM of more than a write", {0, nbd::Command::trim, 0, 0, most + 512}, 0},
        {"TRIM across the end", {0, nbd::Command::trim, 0, disk_bytes, 512}, no_space},
        {"TRIM without a hole", {2, nbd::Command::trim, 0, 0, 512}, invalid},
        {"zeros of more than a write", {0, nbd::Command::write_zeroes, 0, 0, most + 512}, 0},
        {"zeros to the end, no hole", {2, nbd::Command::write_zeroes, 0, 512, disk_bytes - 512}, 0},
        {"zeros across the end", {0, nbd::Command::write_zeroes, 0, 512, disk_bytes}, no_space},
        {"zeros that must be fast", {16, nbd::Command::write_zeroes, 0, 0, 512}, invalid},
        {"write without a hole", {2, nbd::Command::write, 0, 0, 512}, invalid},
        {"a command nobody knows", {0, nbd::Command{999}, 0, 0, 512}, invalid},
    };
    for (const auto& each : cases)
        EXPECT_EQ(check_request(each.request, {disk_bytes}), each.error)
            << each.name << ", length " << each.request.length;
    EXPECT_EQ(check_request({0, nbd::Command::read, 0, 0, 512}, {0}), invalid) << "a disk without sectors";
    const DiskTraits read_only{disk_bytes, true, true}, cached{disk_bytes, false, false};
    EXPECT_EQ(check_request({0, nbd::Command::trim, 0, 0, 512}, read_only), 1u);
    EXPECT_EQ(check_request({0, nbd::Command::trim, 0, 0, 512}, cached), invalid) << "not offered";
    EXPECT_EQ(check_request({1, nbd::Command::write, 0, 0, 512}, cached), invalid) << "not offered";
    const DiskTraits with_chunks{disk_bytes, true, true, true, true};
    EXPECT_EQ(check_request({4, nbd::Command::read, 0, 0, 512}, with_chunks), 0u);
    EXPECT_EQ(check_request({4, nbd::Command::read, 0, 0, 512}, read_only), invalid) << "not agreed on";
    EXPECT_EQ(check_request({8, nbd::Command::block_status, 0, 0, 512}, with_chunks), 0u);
    EXPECT_EQ(check_request({0, nbd::Command::block_status, 0, 0, 512}, read_only), invalid)
        << "not agreed on";
}

TEST(NbdReceiver, Stream_reads_the_same_however_it_is_cut)
{
    const Bytes data = pattern(512), wrong = pattern(700);
    const Bytes stream = Writer()
                             .add(request(0, 1, 0, 512))
                             .add(request(1, 2, 512, 512))
                             .add(data)
                             .add(request(1, 3, 0, 700))  // no multiple of a sector: skipped
                             .add(wrong)
                             .add(request(3, 4, 0, 0))
                             .add(request(1, 5, 1024, 512))
                             .add(data);
    const std::string text(data.begin(), data.end());
    const std::vector<std::string> expected = {"request 1", "request 2",      "payload " + text,
                                               "request 3", "payload ",       "request 4",
                                               "request 5", "payload " + text};
    for (std::size_t piece = 1; piece <= stream.size(); piece = piece < 64 ? piece + 1 : piece * 2) {
        Client client;
        client.arrive(stream, piece);
        ASSERT_EQ(client.events, expected) << "pieces of " << piece << " bytes";
    }
    for (std::size_t split = 1; split < stream.size(); ++split) {
        Client client;
        client.arrive(std::span(stream).first(split), SIZE_MAX);
        client.arrive(std::span(stream).subspan(split), SIZE_MAX);
        ASSERT_EQ(client.events, expected) << "split after byte " << split;
    }
}

TEST(NbdReceiver, Wrong_magic_breaks_the_stream_for_good)
{
    Client client;
    const Bytes stream =
        Writer().add(request(3, 1, 0, 0)).u32(0x25609514).zeroes(24).add(request(3, 2, 0, 0));
    client.arrive(stream, SIZE_MAX);
    EXPECT_TRUE(client.broken);
    EXPECT_EQ(client.events, std::vector<std::string>{"request 1"});
    EXPECT_EQ(client.receiver.next(), Event::broken);
}

TEST(NbdReceiver, Random_streams_never_leave_the_buffers)
{
    for (unsigned seed = 1; seed <= seeds_of(2000); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        Writer stream;
        for (int i = 0; i < 20; ++i) {
            const std::uint32_t bytes = random() % 9 * 256;
            stream.add(
                request(static_cast<std::uint16_t>(random() % 4), random(), random() % 64 * 512, bytes));
            stream.zeroes(random() % 2 ? bytes : random() % 2000);
        }
        if (random() % 2)
            stream.bytes[random() % stream.bytes.size()] ^= 0x40;
        Client client;
        client.arrive(stream.bytes, 1 + random() % 6000);
        ASSERT_FALSE(client.events.empty() && !client.broken);
    }
}
