// SPDX-License-Identifier: MIT
// Waits, status queries, time-outs and what comes of them, to the millisecond.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "tests/scenario/traffic.h"

namespace scenario {
namespace {

using formats::kind_write;
using formats::sub_request;

constexpr double time_out_ms = 1110;
// A packet that starts with 59 retries: 60 time-outs and one pause.
constexpr double budget_59_ms = 60 * time_out_ms + 1000;

// An answer that the server gives once, so long after it saw the first packet. Its network takes no time.
struct Answer {
    double ms;
    enum { data, acknowledgement, done } kind;
    unsigned value;  // number of the data fragment, or Recv_Mask
};

void answer_at(Rig& rig, std::vector<Answer> answers)
{
    rig.network.set_quality({.delay_min = 0, .delay_max = 0});
    rig.script([&rig, answers, first = true](const SeenPacket& packet) mutable {
        if (!std::exchange(first, false))
            return;
        for (const Answer& answer : answers) {
            Bytes bytes = answer.kind == Answer::data ? read_data_all(packet, Bytes(8192))[answer.value - 1]
                          : answer.kind == Answer::done
                              ? write_done(packet)
                              : acknowledge(packet, static_cast<std::uint16_t>(answer.value));
            machine::Scheduler& scheduler = rig.machine.scheduler();
            scheduler.call_at(scheduler.now() +
                                  static_cast<machine::Ticks>(answer.ms) * machine::ticks_per_ms,
                              [&rig, bytes] { rig.network.inject(bytes); });
        }
    });
}

constexpr Answer data(double ms, unsigned number)
{
    return {ms, Answer::data, number};
}
constexpr Answer ack(double ms, unsigned mask)
{
    return {ms, Answer::acknowledgement, mask};
}

struct Waits {
    const char* what;
    std::vector<Answer> answers;
    std::int64_t until_ms;
    std::string story;
    std::uint16_t rack_level = 0x705;
};

TEST(TimeOuts, Waits_queries_and_resends_come_at_their_times)
{
    constexpr Answer all = ack(50, 0xFFFF);
    const Waits cases[] = {
        {"silence", {}, 2300, "read@0 query@110 read@1110 query@1220 read@2220"},
        {"silence of a peer without queries", {}, 2300, "read@0 read@1110 read@2220", 0x704},
        {"silence for a write", {}, 1300, "write:1,2,3,4,5@0 query@110 write:1,2,3,4,5@1110 query@1220"},
        {"progress", {data(50, 1)}, 2300, "read@0 query@165 read@1165 query@1275 read@2275"},
        {"progress twice", {data(50, 1), data(120, 2)}, 1300, "read@0 query@220 read@1220"},
        {"progress later", {data(500, 1)}, 2300, "read@0 query@110 query@1165 read@2165 query@2275"},
        {"a gap", {data(50, 3)}, 1200, "read@0 query@50 query@105 read@1105"},
        {"gaps", {data(20, 3), data(30, 5)}, 1200, "read@0 query@20 query@30 query@85 read@1085 query@1195"},
        {"a gap of a peer without queries", {data(50, 3)}, 1200, "read@0 read@1105", 0x704},
        {"missing fragments of a write",
         {ack(50, 0xFFF5)},
         1200,
         "write:1,2,3,4,5@0 write:2,4@50 query@160 write:1,2,3,4,5@1160"},
        {"a read not understood", {ack(50, 0)}, 1200, "read@0 read@50 query@160 read@1160"},
        {"all there, then nothing", {all}, 11300, "write:1,2,3,4,5@0 write:1,2,3,4,5@11055 query@11165"},
        {"all there, then done", {all, {9000, Answer::done, 0}}, 12000, "write:1,2,3,4,5@0"},
        {"all there twice",
         {all, ack(10000, 0xFFFF)},
         11300,
         "write:1,2,3,4,5@0 write:1,2,3,4,5@11055 query@11165"},
        {"all there, then data", {all, data(300, 1)}, 1400, "read@0 query@385 read@1385"}};
    for (const Waits& waits : cases) {
        SCOPED_TRACE(waits.what);
        Rig rig({.rack_level = waits.rack_level});
        answer_at(rig, waits.answers);
        rig.run([&] {
            Pending request(rig);
            waits.story.starts_with("write") ? request.write(0, 0, Bytes(6144)) : request.read(0, 0, 8192);
            rig.machine.sleep_ms(waits.until_ms);
            EXPECT_EQ(story(rig), waits.story);
            rig.main.start();
            request.wait();
            EXPECT_TRUE(request.ok());
        });
    }
}

// A server that answers and answers, and brings nothing new.
TEST(TimeOuts, Come_from_a_server_that_repeats_itself_too)
{
    struct Repeats {
        const char* what;
        bool write;
        std::function<Bytes(const SeenPacket&)> answer;
    };
    const Repeats cases[] = {
        {"the same data", false,
         [](const SeenPacket& request) { return read_data(request, 2, 6, 1386, Bytes(1386)); }},
        {"fragments missing", true, [](const SeenPacket& request) { return acknowledge(request, 0xFFFD); }},
        {"nothing understood", false, [](const SeenPacket& request) { return acknowledge(request, 0); }}};
    for (const Repeats& repeats : cases) {
        SCOPED_TRACE(repeats.what);
        Rig rig({.disks = {{}, {}}});
        std::optional<SeenPacket> asked;
        rig.script([&](const SeenPacket& packet) { asked = packet; });
        rig.run([&] {
            Pending request(rig);
            repeats.write ? request.write(1, 0, Bytes(6144)) : request.read(1, 0, 8192);
            auto answer_for = [&](unsigned ms) {
                for (unsigned passed = 0; passed < ms && !request.done(); passed += 10) {
                    rig.machine.sleep_ms(10);
                    if (asked)
                        rig.answer(repeats.answer(*asked));
                }
            };
            answer_for(12'000);
            EXPECT_GE(rig.log_count("Time Out"), 1u);
            Pending notice(rig);
            rig.scsi().shutdown();
            answer_for(120'000);
            EXPECT_TRUE(request.done() && !request.ok()) << "four time-outs after the shutdown";
        });
    }
}

struct Budget {
    const char* what;
    std::uint32_t boot_mode;
    unsigned lun;
    bool write;
    std::uint8_t retry_mins;
    double gives_up_ms;  // 0: never
};

TEST(TimeOuts, Budgets_end_a_request_except_on_the_system_disk)
{
    const Budget cases[] = {
        {"read of a data disk", 0, 1, false, 1, budget_59_ms},
        {"read of a data disk, two minutes", 0, 1, false, 2, budget_59_ms + 60 * time_out_ms},
        {"read of a data disk, no limit", 0, 1, false, 0, 0},
        {"write of a data disk, no limit", 0, 1, true, 0, 0},
        {"write of the system disk", 0, 0, true, 1, budget_59_ms},
        {"read of disk 0 in boot mode 7", 7, 0, false, 1, budget_59_ms},
        {"read of disk 0 in another boot mode", 5, 0, false, 1, budget_59_ms},
        {"read of the system disk", 0, 0, false, 1, 0}};
    for (const Budget& budget : cases) {
        SCOPED_TRACE(budget.what);
        Rig rig({.disks = std::vector<DiskPlan>(2, {.retry_mins = budget.retry_mins}),
                 .boot_mode = budget.boot_mode});
        rig.main.stop();
        rig.run([&] {
            Pending request(rig);
            budget.write ? request.write(budget.lun, 5, pattern(5, 512)) : request.read(budget.lun, 5, 512);
            rig.machine.sleep_ms(200'000);
            EXPECT_EQ(request.done(), budget.gives_up_ms != 0);
            rig.main.start();
            request.wait();
            EXPECT_EQ(request.ok(), budget.gives_up_ms == 0);
            if (budget.gives_up_ms == 0)
                return;
            EXPECT_NEAR(request.took_ms(), budget.gives_up_ms, exactly_ms);
            EXPECT_EQ(request.request().sense(), (machine::Sense{0x02, 0x3A, 0x00}));
            // Without medium from now on, while the other disk goes on.
            rig.forget_packets();
            Pending again(rig), other(rig);
            again.read(budget.lun, 5, 512).wait();
            EXPECT_EQ(again.request().sense(), (machine::Sense{0x05, 0x21, 0x00}));
            EXPECT_TRUE(rig.packets().empty());
            other.read(1 - budget.lun, 5, 512).wait();
            EXPECT_TRUE(other.ok());
            rig.scsi().scan();
            ASSERT_EQ(rig.scsi().luns().size(), 2u);
            EXPECT_EQ(rig.scsi().luns()[budget.lun].sectors, 0u);
            EXPECT_EQ(rig.scsi().luns()[1 - budget.lun].sectors, 2048u);
        });
        EXPECT_EQ(rig.log_count("Time End"), budget.retry_mins != 0 ? 1u : 0u);
    }
}

// Each time-out, and the end, is printed with all that tells which packet it was.
// One answer more or less shifts the waits of all that follow.
TEST(TimeOuts, Of_a_silent_server_all_take_their_time)
{
    Rig rig({.disks = {{}, {.retry_mins = 2}}});
    answer_at(rig, {data(50, 1)});
    rig.run([&] {
        Pending request(rig);
        request.read(1, 0, 8192).wait();
        EXPECT_FALSE(request.ok());
        EXPECT_NEAR(request.took_ms(), 165 + 1000 + 119 * time_out_ms + 1000, 0.1);
    });
}

TEST(TimeOuts, Are_printed)
{
    Rig rig({.disks = {{}, {}}});
    rig.main.stop();
    rig.run([&] {
        Pending request(rig);
        request.write(1, 0x2F, Bytes(512 * 17));
        request.wait();
    });
    unsigned worker = rig.sent(sub_request, kind_write)[0].header().Worker_Byte;
    std::string start =
        "\nQRN SCSI: Time Out: 0" + std::to_string(worker) + " 1 5E00 00000030     1-00 FFFFFFFF";
    for (const int left : {59, 31, 0})
        EXPECT_EQ(rig.log_count(start + " Retrys:" + std::to_string(left) + " 59"), 1u) << left;
    EXPECT_EQ(rig.log_count("Time Out"), 60u);
    EXPECT_EQ(rig.log_count("\nQRN SCSI: Time End: 0" + std::to_string(worker) + " 1 5E00, 0 1"), 1u);
}

// The server of the system disk stays away for a minute and a half; nobody above notices an error.
TEST(TimeOuts, System_disk_survives_ninety_seconds_without_a_server)
{
    Rig rig;
    Bytes content = pattern(0, 65536);
    std::copy(content.begin(), content.end(), rig.main.content(0).begin());
    rig.run([&] {
        rig.main.stop();
        Pending requests[] = {Pending(rig), Pending(rig)};
        for (Pending& request : requests)
            request.read(0, 0, 65536);
        rig.machine.sleep_ms(90'000);
        std::vector<double> times;
        for (const SeenPacket& packet : rig.sent(sub_request, formats::kind_read))
            if (packet.header().Pkt_Index == 0 && packet.header().Seq.get() == 1)
                times.push_back(packet.time_ms);
        // 60 time-outs, at the 57th a pause, at the 60th one of 2.1 s, and on it goes.
        ASSERT_GT(times.size(), 62u);
        EXPECT_NEAR(times[57] - times[56], time_out_ms + 1000, exactly_ms);
        EXPECT_NEAR(times[60] - times[59], time_out_ms + 2100, exactly_ms);
        EXPECT_NEAR(times[61] - times[60], time_out_ms, exactly_ms);
        rig.main.start();
        for (Pending& request : requests) {
            request.wait();
            EXPECT_TRUE(request.ok());
            EXPECT_EQ(request.data(), content);
        }
        EXPECT_TRUE(rig.write(0, 0, content));
    });
    EXPECT_FALSE(rig.logged("Retrys:-20 59")) << "the server was back long before";
}

TEST(TimeOuts, Transport_flag_is_cleared_at_every_32nd_retry)
{
    for (bool with_flag : {true, false}) {
        Rig rig({.disks = {{}, {}}});
        machine::Transport& transport = *rig.machine.transport();
        transport.set_without_flag(!with_flag);
        rig.main.stop();
        rig.run([&] {
            Pending request(rig);
            request.read(1, 0, 512);
            transport.set_flag(5);
            for (unsigned time_out = 1; time_out <= 60; ++time_out) {
                rig.machine.sleep_ms(static_cast<std::int64_t>(time_out_ms) + (time_out == 58 ? 1000 : 0));
                unsigned left = 60 - time_out;
                rig.machine.sleep_ms(time_out == 1 ? 1 : 0);
                EXPECT_EQ(transport.flag() == 0, with_flag && left % 32 == 0) << left;
                transport.set_flag(5);
            }
            request.wait();
        });
    }
}

struct Ending {
    const char* what;
    unsigned lun;
    bool write;
    double after_ms;  // the request's start
    unsigned time_outs;
};

TEST(TimeOuts, Shutdown_cuts_the_budget)
{
    const Ending cases[] = {{"read of a data disk", 1, false, 4 * time_out_ms, 4},
                            {"write of a data disk", 1, true, 4 * time_out_ms, 4},
                            {"write of the system disk", 0, true, 22 * time_out_ms + 1000, 22}};
    for (const Ending& ending : cases)
        for (std::uint8_t retry_mins : {std::uint8_t{1}, std::uint8_t{0}}) {
            SCOPED_TRACE(ending.what);
            Rig rig({.disks = std::vector<DiskPlan>(2, {.retry_mins = retry_mins})});
            rig.main.stop();
            rig.run([&] {
                Pending request(rig);
                ending.write ? request.write(ending.lun, 0, Bytes(512)) : request.read(ending.lun, 0, 512);
                rig.machine.sleep_ms(500);
                rig.scsi().shutdown();
                request.wait();
                EXPECT_FALSE(request.ok());
                EXPECT_NEAR(request.took_ms(), ending.after_ms, exactly_ms);
            });
            EXPECT_EQ(rig.log_count("Time Out"), ending.time_outs);
            EXPECT_EQ(rig.log_count("Time End"), 1u);
            EXPECT_TRUE(rig.logged(", 0 3")) << "boot mode and stop level";
        }
}

// A store that takes no more writes: the disk has its budget, reads and the system disk beside it go on.
TEST(TimeOuts, A_full_store_at_the_server_fails_its_writes_in_their_time_and_nothing_else)
{
    Rig rig({.disks = std::vector<DiskPlan>(2)});
    rig.main.store(1).set_failing(false, true);
    rig.run([&] {
        Pending write(rig);
        write.write(1, 0, Bytes(8192, 1));
        rig.machine.sleep_ms(2000);
        EXPECT_TRUE(rig.write(0, 0, Bytes(4096, 2)));
        Bytes data(4096);
        EXPECT_TRUE(rig.read(1, 64, data));
        write.wait();
        EXPECT_FALSE(write.ok());
        EXPECT_NEAR(write.took_ms(), budget_59_ms, 60);
        EXPECT_TRUE(rig.read(0, 0, data));
        EXPECT_EQ(data, Bytes(4096, 2));
        rig.scsi().shutdown();
    });
    EXPECT_EQ(rig.log_count("Time Out"), 60u);
    EXPECT_EQ(rig.main.counters(1).writes_completed, 0u);
    EXPECT_LT(rig.sent(formats::sub_request, kind_write).size(), 2u * 6 * 61);
}

TEST(TimeOuts, Shutdown_ends_while_writes_fail_at_the_server)
{
    Rig rig({.disks = std::vector<DiskPlan>(2, {.retry_mins = 0})});
    rig.main.store(1).set_failing(false, true);
    rig.run([&] {
        Pending write(rig);
        write.write(1, 0, Bytes(8192, 1));
        rig.machine.sleep_ms(500);
        rig.scsi().shutdown();
        write.wait();
        EXPECT_FALSE(write.ok());
        EXPECT_NEAR(write.took_ms(), 4 * time_out_ms, 60);
    });
}

TEST(TimeOuts, Machine_without_its_system_disk_at_shutdown_is_reset)
{
    using Access = machine::Ports::Access;
    const std::vector<Access> until_reset = {{true, 0x70, 0x03},  {true, 0x71, 0x51}, {true, 0x70, 0x05},
                                             {true, 0x71, 0x52},  {true, 0x70, 0x0B}, {false, 0x71, 0x71},
                                             {true, 0x70, 0x0B},  {true, 0x71, 0x33}, {true, 0x70, 0x0C},
                                             {false, 0x71, 0xC0}, {true, 0x92, 0x01}, {true, 0x64, 0xFE}};
    const std::vector<Access> to_the_end = {{true, 0xCF9, 0x02}, {true, 0xCF9, 0x0E}, {true, 0x92, 0x01},
                                            {true, 0x64, 0xFE},  {true, 0x3C4, 0x01}, {false, 0x3C5, 0x00},
                                            {true, 0x3C5, 0x20}};
    for (bool reset_works : {true, false}) {
        Rig rig({.reset_ports_work = reset_works});
        rig.machine.ports().set_clock_register(0x0B, 0x71);
        rig.machine.ports().set_clock_register(0x0C, 0xC0);
        rig.main.stop();
        double started_ms = 0;
        rig.run(
            [&] {
                Pending request(rig);
                request.read(0, 0, 512);
                started_ms = rig.now_ms();
                rig.machine.sleep_ms(500);
                rig.scsi().shutdown();
                request.wait();
            },
            reset_works ? machine::Outcome::reset : machine::Outcome::bug_check);
        EXPECT_NEAR(rig.now_ms() - started_ms, 22 * time_out_ms + 1000, exactly_ms);
        std::vector<Access> expected = until_reset;
        if (!reset_works) {
            expected.insert(expected.end(), to_the_end.begin(), to_the_end.end());
            EXPECT_EQ(rig.machine.bug_check_code(), 0xE5u);
        }
        EXPECT_EQ(rig.machine.ports().accesses() == expected, true) << rig.machine.ports().accesses().size();
    }
}

}  // namespace
}  // namespace scenario
