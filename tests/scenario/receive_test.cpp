// SPDX-License-Identifier: MIT
// What the driver makes of every packet that comes in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "tests/scenario/traffic.h"

namespace scenario {
namespace {

using formats::kind_read;
using formats::kind_write;
using formats::sub_request;
using formats::sub_status_query;

bool is_first_send(const SeenPacket& packet)
{
    return packet.header().Sub_Code == sub_request && packet.header().Recv_Mask.get() == 0;
}

void expect_all_released(Rig& rig)
{
    EXPECT_EQ(rig.machine.transport()->unreleased(), 0u);
}

// Hands a packet to the workstation after so many milliseconds, with nothing in between.
void inject_after(Rig& rig, double ms, Bytes packet)
{
    machine::Scheduler& scheduler = rig.machine.scheduler();
    scheduler.call_at(scheduler.now() + static_cast<machine::Ticks>(ms * machine::ticks_per_ms),
                      [&rig, packet] { rig.network.inject(packet); });
}

// A fragment that comes while the one before it is still missing makes the worker ask at once.
TEST(Receive, Fragments_complete_a_read_in_any_order)
{
    for (unsigned count : {3u, 4u}) {
        const std::uint32_t bytes = count == 3 ? 4096 : 5120;
        Rig rig;
        std::vector<unsigned> order(count);
        std::iota(order.begin(), order.end(), 1u);
        rig.script([&](const SeenPacket& packet) {
            if (!is_first_send(packet))
                return;
            auto fragments = read_data_all(packet, pattern(7, bytes));
            for (unsigned i = 0; i < count; ++i)
                inject_after(rig, 5 + 5 * i, fragments[order[i] - 1]);
        });
        rig.run([&] {
            do {
                rig.forget_packets();
                Pending request(rig);
                request.read(0, 7, bytes).wait();
                EXPECT_EQ(request.data(), pattern(7, bytes));
                EXPECT_NEAR(request.took_ms(), 0.1 + 5 * count, exactly_ms);
                std::string expected = "read@0", shown;
                for (unsigned i = 0; i < count; ++i) {
                    shown += std::to_string(order[i]);
                    bool gap = order[i] > 1 && std::find(&order[0], &order[i], order[i] - 1) == &order[i];
                    if (gap && i + 1 < count)
                        expected += " query@" + std::to_string(5 + 5 * i) + ".1";
                }
                EXPECT_EQ(story(rig), expected) << shown;
            } while (std::next_permutation(order.begin(), order.end()));
            expect_all_released(rig);
        });
        EXPECT_EQ(rig.log_count("Time Out"), 0u);
    }
}

TEST(Receive, Zero_answers_with_two_numbers_fill_the_packet)
{
    for (auto [first, second] :
         {std::pair(1u, 2u), std::pair(2u, 1u), std::pair(3u, 16u), std::pair(4u, 4u)}) {
        Rig rig;
        rig.script([&, first = first, second = second](const SeenPacket& packet) {
            inject_after(rig, 10, read_data(packet, first, 0, 0, {}));
            inject_after(rig, 20, read_data(packet, second, 0, 0, {}));
        });
        rig.run([&] {
            Pending request(rig);
            request.read(0, 0, 8192);
            rig.machine.sleep_ms(100);
            EXPECT_EQ(request.done(), first != second) << first << ", " << second;
            rig.main.start();
            request.wait();
            EXPECT_EQ(request.data(), Bytes(8192, 0));
            expect_all_released(rig);
        });
    }
}

using Packets = std::vector<Bytes>;

// An answer that does not count: the worker waits as if nothing had come, then takes the right one.
void expect_ignored(const std::string& what, bool write, const std::function<Packets(const SeenPacket&)>& bad)
{
    SCOPED_TRACE(what);
    Rig rig;
    const Bytes content = pattern(9, 4096);
    rig.script([&](const SeenPacket& packet) {
        if (packet.header().Sub_Code == sub_status_query) {
            Packets right = write ? Packets{write_done(packet)} : read_data_all(packet, content);
            for (const Bytes& answer : right)
                rig.network.inject(answer);
        } else if (!write || packet.header().Frag_Num == 1) {
            for (const Bytes& answer : bad(packet))
                rig.network.inject(answer);
        }
    });
    rig.run([&] {
        Pending request(rig);
        write ? request.write(0, 9, content) : request.read(0, 9, content.size());
        request.wait();
        EXPECT_TRUE(request.ok());
        EXPECT_EQ(request.data(), content);
        EXPECT_NEAR(request.took_ms(), 110.1, exactly_ms);
        expect_all_released(rig);
    });
    EXPECT_EQ(story(rig), write ? "write:1,2,3@0 query@110" : "read@0 query@110");
}

TEST(Receive, Answers_that_differ_in_a_matched_byte_are_ignored)
{
    for (bool write : {false, true})
        for (unsigned byte : {0, 1, 2, 3, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})
            for (unsigned bit : {0, 7})
                expect_ignored("byte " + std::to_string(byte), write, [&](const SeenPacket& packet) {
                    Bytes answer = write ? write_done(packet) : read_data(packet, 1, 3, 0, Bytes(1386, 0xBD));
                    Bytes acknowledgement = acknowledge(packet, 0);
                    for (Bytes* bad : {&answer, &acknowledgement})
                        (*bad)[byte] = static_cast<std::uint8_t>((*bad)[byte] ^ 1u << bit);
                    return Packets{answer, acknowledgement};
                });
}

TEST(Receive, Answers_of_the_wrong_kind_or_for_workers_that_do_not_exist_are_ignored)
{
    auto data = [](const SeenPacket& packet) { return read_data(packet, 1, 3, 0, Bytes(1386, 0xBD)); };
    for (std::uint8_t index : {std::uint8_t{6}, std::uint8_t{7}})
        expect_ignored("worker " + std::to_string(index), false, [&](const SeenPacket& packet) {
            Bytes answer = data(packet);
            answer[10] = index;
            return Packets{answer};
        });
    auto with = [](Bytes packet, int sub_code, int kind) {
        packet[4] = static_cast<std::uint8_t>(sub_code);
        packet[5] = static_cast<std::uint8_t>(kind);
        return packet;
    };
    for (bool write : {false, true}) {
        expect_ignored("wrong direction", write, [&](const SeenPacket& packet) {
            return Packets{write ? data(packet) : write_done(packet)};
        });
        for (int kind : {0x00, 0x5C, 0x5E, 0x8C, 0xA4, 0xFF})
            expect_ignored("kind " + std::to_string(kind), write,
                           [&](const SeenPacket& packet) { return Packets{with(data(packet), 0, kind)}; });
        for (int sub_code : {0x01, 0xAA, 0xFF})
            expect_ignored("sub code " + std::to_string(sub_code), write, [&](const SeenPacket& packet) {
                return Packets{with(data(packet), sub_code, 0x5D), with(write_done(packet), sub_code, 0x5F),
                               with(write_done(packet), sub_code, 0x55 ^ (sub_code == 0xAA))};
            });
    }
}

TEST(Receive, Data_that_is_cut_short_or_lies_outside_the_packet_is_ignored)
{
    for (unsigned length = 0; length <= 40; ++length)
        expect_ignored("length " + std::to_string(length), false, [&](const SeenPacket& packet) {
            Bytes answer = read_data(packet, 1, 3, 0, Bytes(1386, 0xBD));
            answer.resize(length);
            return Packets{answer};
        });
    struct Place {
        std::uint16_t offset, size, count;
        unsigned sent;
    };
    for (const Place& place :
         {Place{0, 1386, 3, 1385}, Place{4096, 1, 3, 1}, Place{2711, 1386, 3, 1386},
          Place{0xFFFF, 1386, 3, 1386}, Place{0xFC00, 0x0400, 3, 1024}, Place{0, 0xFFFF, 3, 1386},
          Place{0xFFFF, 0xFFFF, 3, 1386}, Place{0, 4097, 0, 0}})
        expect_ignored("offset " + std::to_string(place.offset) + " size " + std::to_string(place.size),
                       false, [&](const SeenPacket& packet) {
                           Bytes answer =
                               read_data(packet, 2, place.count, place.offset, Bytes(place.sent, 0xBD));
                           formats::Be16 size;
                           size.set(place.size);
                           std::memcpy(&answer[28], &size, sizeof size);
                           return Packets{answer};
                       });
}

// Any of these would complete the packet, or a part of it, with what the buffer held before.
TEST(Receive, Fragments_whose_numbers_do_not_hold_together_are_ignored)
{
    struct Lie {
        unsigned number, count;
        std::uint16_t size;
    };
    for (const Lie& lie :
         {Lie{0, 3, 1386}, Lie{0, 1, 1386}, Lie{4, 3, 1386}, Lie{2, 1, 1386}, Lie{1, 4, 1386},
          Lie{1, 32, 1386}, Lie{33, 1, 1386}, Lie{1, 1, 0}, Lie{3, 3, 0}, Lie{2, 255, 1386}})
        expect_ignored("number " + std::to_string(lie.number) + " of " + std::to_string(lie.count), false,
                       [&](const SeenPacket& packet) {
                           return Packets{read_data(packet, lie.number, lie.count, 0, Bytes(lie.size, 0xBD))};
                       });
}

// Whatever its sub code, which is printed as it came.
TEST(Receive, Acknowledgements_are_printed_with_what_the_server_misses)
{
    Rig rig({.settings = {{"RW_THREADS", 1}}});
    rig.script([&](const SeenPacket& packet) {
        if (packet.header().Recv_Mask.get() != 0)
            return rig.answer(write_done(packet));
        Bytes missing = acknowledge(packet, 0xFFFD);
        missing[4] = 0x37;
        rig.answer(missing);
    });
    rig.run([&] {
        Bytes data(512 * 3);
        Pending(rig).write(0, 16, data).wait();
    });
    const std::string worker = std::to_string(rig.packets()[0].header().Worker_Byte & 7);
    EXPECT_EQ(rig.log_count("\nQRN SCSI: Recv ACK: 0" + worker + " 5B37     1-00 0002"), 2u)
        << rig.machine.log().text();
}

// One worker, so that answers to a request that is over find another one of the same worker in flight.
TEST(Receive, Answers_after_completion_change_nothing)
{
    Rig rig({.disks = {{.flags = 1}}, .settings = {{"RW_THREADS", 1}}});
    std::vector<SeenPacket> requests;
    rig.script([&](const SeenPacket& packet) {
        requests.push_back(packet);
        for (const SeenPacket& old : requests)
            for (const Bytes& data :
                 read_data_all(old, pattern(static_cast<unsigned>(&old - &requests[0]), 8192)))
                rig.answer(data);
    });
    rig.run([&] {
        for (unsigned i = 0; i < 6; ++i) {
            Pending request(rig);
            request.read(0, 0, 8192).wait();
            EXPECT_EQ(request.data(), pattern(i, 8192));
        }
        rig.machine.sleep_ms(5);
        expect_all_released(rig);
    });
    EXPECT_EQ(requests.size(), 6u);
}

// The buffer of a request that was given up is its owner's again.
TEST(Receive, Answers_after_a_failure_change_nothing)
{
    Rig rig({.disks = {{}, {}}});
    rig.main.stop();
    rig.run([&] {
        Pending request(rig);
        request.read(1, 0, 8192).wait();
        EXPECT_FALSE(request.ok());
        const Bytes left = request.data();
        for (const SeenPacket& packet : rig.sent(sub_request, kind_read))
            for (const Bytes& data : read_data_all(packet, Bytes(8192, 0xBD)))
                rig.network.inject(data);
        rig.machine.sleep_ms(5);
        EXPECT_EQ(request.data(), left);
        expect_all_released(rig);
    });
}

// Retry_Left becomes 3 however large, or negative, it was, but is not raised again.
TEST(Receive, Retry_limits_leave_four_time_outs)
{
    for (int minutes : {1, 0})
        for (bool write : {false, true}) {
            Rig rig({.disks = {{}, {.retry_mins = static_cast<std::uint8_t>(minutes), .mirrored = true}}});
            rig.script([&](const SeenPacket& packet) {
                if (packet.header().Sub_Code == sub_status_query)
                    return;
                Bytes limit = write_done(packet);
                limit[4] = formats::sub_retry_limit, limit[5] = formats::kind_retry_limit;
                rig.answer(limit);
            });
            rig.run([&] {
                Pending request(rig);
                (write ? request.write(1, 0, Bytes(512)) : request.read(1, 0, 512)).wait();
                EXPECT_FALSE(request.ok());
                EXPECT_NEAR(request.took_ms(), 4 * 1110 + 1000, exactly_ms);
            });
            for (const char* left : {"3", "2", "1", "0"})
                EXPECT_EQ(rig.log_count(std::string("Retrys:") + left + (minutes ? " 59" : " -1")), 1u)
                    << left;
            EXPECT_EQ(rig.log_count("Time Out"), 4u);
            EXPECT_FALSE(rig.logged("Slave")) << "the count of earlier time-outs was passed over";
        }
}

// The reply is built word by word here, from the traffic that the poll reports.
TEST(Receive, Server_polls_are_answered_with_226_bytes)
{
    Rig rig({.disks = {{}, {.mirrored = true}, {.retry_mins = 0}}});
    const formats::ServerRecord poller = server_address(8);
    Bytes poll(30, 0x77), reply;
    const std::uint8_t start[] = {0x01, 0x38, 0xC2, 0xFF, 0x04, 0x05, 0x06, 0x07};
    std::memcpy(poll.data(), start, sizeof start);
    std::memcpy(&poll[8], &poller, sizeof poller);
    rig.drop = [&](const SeenPacket& packet) {
        return packet.header().Disk_Id[3] == 0xD2 && rig.now_ms() < 4000;
    };
    rig.run([&] {
        Bytes data(65536), small(512 * 3);
        EXPECT_TRUE(rig.read(0, 0, data) && rig.read(0, 0, small) && rig.write(0, 0, data));
        EXPECT_TRUE(rig.write(1, 0, small) && rig.write(1, 0, small));
        EXPECT_TRUE(rig.read(2, 0, small));
        for (std::size_t length : {25u, 30u}) {
            rig.forget_packets();
            rig.network.inject({poll.data(), length});
            rig.machine.sleep_ms(1);
            ASSERT_EQ(rig.packets().size(), length == 25 ? 0u : 1u) << "too short to be taken";
        }
        EXPECT_EQ(std::memcmp(&rig.packets()[0].server, &poller, sizeof poller), 0);
        reply = rig.packets()[0].bytes;
        expect_all_released(rig);
    });
    formats::Boot_Param block = boot_block(rig.plan);
    Bytes expected(226);  // no cache, no image
    const std::uint8_t mark[] = {0x02, 0x38, 0xC2, 0xFF, 0x06, 0x07, 0x05, 0x04};
    std::memcpy(&expected[0], mark, sizeof mark);
    std::memcpy(&expected[8], reinterpret_cast<const std::uint8_t*>(&block) + 8, 34);
    auto words = [&expected, at = 42u](std::initializer_list<std::uint32_t> values) mutable {
        for (std::uint32_t value : values)
            for (unsigned shift = 0; shift < 32; shift += 8)
                expected[at++] = static_cast<std::uint8_t>(value >> shift);
    };
    // Disk status; then tags, sectors and time-outs of reads and of writes.
    words({0x11110000, 2, 131, 0, 1, 128, 0});
    words({0x11110001, 0, 0, 0, 2, 6, 0});
    auto time_outs = static_cast<std::uint32_t>(rig.log_count("Time Out"));
    words({0x11110002, 1, 3, time_outs, 0, 0, 0});
    words({0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(time_outs, 4u);
    EXPECT_EQ(reply, expected);
}

}  // namespace
}  // namespace scenario
