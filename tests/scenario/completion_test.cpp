// SPDX-License-Identifier: MIT
// How requests end: the completion channel, and control requests that are not the driver's own.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>

#include "tests/scenario/dispatch_tap.h"
#include "tests/scenario/traffic.h"
#include "tests/seeds.h"

namespace scenario {
namespace {

constexpr ULONG done_code = 0x1B2183;

using Reads = std::vector<std::unique_ptr<Pending>>;

void start(Reads& reads, Rig& rig, unsigned lun, std::uint32_t lba, std::size_t bytes)
{
    reads.push_back(std::make_unique<Pending>(rig));
    reads.back()->read(lun, lba, bytes);
}

// --- The channel

TEST(Completion, Notice_is_an_IO_CONTROL_of_28_bytes_through_any_queue)
{
    Rig rig({.disks = std::vector<DiskPlan>(2)});
    DispatchTap tap(rig);
    rig.run([&] {
        Pending read(rig);
        read.read(1, 0, 4096);
        PSCSI_REQUEST_BLOCK srb = tap.seen().back().address;
        rig.machine.sleep_ms(10);
        ASSERT_TRUE(read.ok());
        ASSERT_EQ(tap.notices(true).size(), 1u);
        const DispatchTap::Seen notice = tap.notices(true).front();
        EXPECT_EQ(notice.stack.MajorFunction, IRP_MJ_SCSI);
        EXPECT_EQ(notice.stack.MinorFunction, 0);
        EXPECT_EQ(notice.stack.Control, 0xE0);
        EXPECT_EQ(notice.stack.Parameters.DeviceIoControl.IoControlCode, 0x1B0013u);
        EXPECT_EQ(notice.srb.Length, sizeof(SCSI_REQUEST_BLOCK));
        EXPECT_EQ(notice.srb.PathId | notice.srb.TargetId, 0);
        EXPECT_EQ(notice.srb.Lun, 1);
        EXPECT_EQ(notice.srb.QueueTag, 0xFF);
        EXPECT_EQ(notice.srb.SrbFlags, 0x110u);
        EXPECT_EQ(notice.srb.TimeOutValue, 0xFFFFFFFFu);
        EXPECT_EQ(notice.srb.DataTransferLength, 28u);
        EXPECT_EQ(notice.srb.OriginalRequest, notice.irp);
        EXPECT_EQ(notice.control.HeaderLength, 28u);
        EXPECT_EQ(std::memcmp(notice.control.Signature, "QRN.Disk", 8), 0);
        EXPECT_EQ(notice.control.Timeout, 0xFFFFFFFFu);
        EXPECT_EQ(notice.control.ControlCode, done_code);
        EXPECT_EQ(notice.control.Length, 0u);
        EXPECT_EQ(notice.control.ReturnCode, reinterpret_cast<ULONG>(srb));
    });
}

TEST(Completion, Workers_that_finish_together_take_turns)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(20); ++seed) {
        Rig rig({.seed = seed, .disks = {{.flags = 0x08}}});
        DispatchTap tap(rig);
        std::vector<SeenPacket> waiting;
        rig.script([&](const SeenPacket& packet) {
            waiting.push_back(packet);
            if (waiting.size() < 4)
                return;
            for (const SeenPacket& request : waiting)
                for (const Bytes& answer : read_data_all(request, pattern(7, 512)))
                    rig.network.inject(answer);
        });
        rig.run([&] {
            Reads reads;
            for (unsigned i = 0; i < 4; ++i)
                start(reads, rig, 0, i, 512);
            rig.machine.sleep_ms(10);
            for (const auto& read : reads) {
                EXPECT_TRUE(read->ok()) << "seed " << seed;
                EXPECT_EQ(read->data(), pattern(7, 512));
            }
            EXPECT_EQ(tap.notices(true).size(), 4u);
            EXPECT_EQ(rig.scsi().in_flight(), 0u);
        });
    }
}

// Fed otherwise, the disk would not get its third request, since nothing draws it while the channel is busy.
TEST(Completion, Busy_channel_delays_completions_and_drops_other_notices)
{
    Rig rig({.feeding = machine::Feeding::eager});
    DispatchTap tap(rig);
    rig.run([&] {
        tap.keep_back = [](const DispatchTap::Seen& seen) { return seen.completes(); };
        Pending first(rig), second(rig), third(rig);
        first.read(0, 0, 4096);
        rig.machine.sleep_ms(10);
        EXPECT_EQ(tap.notices(true).size(), 1u);
        EXPECT_EQ(tap.notices(false).size(), 1u);

        second.read(0, 8, 4096);
        third.read(0, 16, 4096);
        rig.machine.sleep_ms(10);
        EXPECT_EQ(rig.sent(formats::sub_request, formats::kind_read).size(), 3u);
        EXPECT_EQ(tap.notices(true).size(), 1u);
        EXPECT_EQ(tap.notices(false).size(), 1u);
        EXPECT_FALSE(first.done() || second.done() || third.done());

        tap.release();
        rig.machine.sleep_ms(10);
        EXPECT_TRUE(first.ok() && second.ok() && third.ok());
        EXPECT_EQ(tap.notices(true).size(), 3u);
        EXPECT_EQ(tap.notices(false).size(), 1u);
    });
}

TEST(Completion, Notice_without_an_SRB_succeeds_while_the_disks_slots_are_all_asked_for)
{
    Rig rig({.disks = {{.flags = 0x02}}});
    DispatchTap tap(rig);
    rig.run([&] {
        Reads reads;
        // The second round finds the first one's requests counted off.
        for (int round = 0; round < 2; ++round) {
            rig.main.stop();
            for (auto expected : {SRB_STATUS_BAD_FUNCTION, SRB_STATUS_SUCCESS}) {
                start(reads, rig, 0, 0, 512);
                rig.machine.sleep_ms(10);
                ASSERT_EQ(tap.notices(false).size(), reads.size());
                EXPECT_EQ(SRB_STATUS(tap.notices(false).back().address->SrbStatus), expected);
            }
            EXPECT_EQ(rig.scsi().in_flight(), 2u);
            rig.main.start();
            rig.machine.sleep_ms(2000);
            EXPECT_EQ(rig.scsi().in_flight(), 0u);
        }
    });
}

TEST(Completion, Data_path_allocates_nothing)
{
    Rig rig({.disks = {{.flags = 0x04}, {.flags = 0x28}}});
    rig.run([&] {
        Bytes data = pattern(0, 65536), back(65536);
        for (unsigned lun = 0; lun < 2; ++lun)
            ASSERT_TRUE(rig.write(lun, 0, data) && rig.read(lun, 0, back));
        const std::uint64_t before = rig.machine.pool_bytes();
        rig.machine.forbid_pool_allocation(true);
        for (std::uint32_t round = 0; round < 60; ++round) {
            const std::uint32_t lba = round * 31 % 1900;
            data = pattern(lba, 512 * (1 + round * 7 % 128), round);
            back.assign(data.size(), 0);
            ASSERT_TRUE(rig.write(round % 2, lba, data));
            ASSERT_TRUE(rig.read(round % 2, lba, back));
            ASSERT_EQ(back, data);
        }
        Reads reads;
        for (unsigned i = 0; i < 40; ++i)
            start(reads, rig, i % 2, 32 * i, 32768);
        rig.machine.sleep_ms(1000);
        for (const auto& read : reads)
            EXPECT_TRUE(read->ok());
        rig.machine.forbid_pool_allocation(false);
        EXPECT_EQ(rig.machine.pool_bytes(), before);
    });
}

// --- Control requests of others

// Its data ends where memory ends, so that a look beyond it is a crash.
class ControlRequest {
public:
    explicit ControlRequest(Rig& rig) : request(rig.scsi())
    {
        control.HeaderLength = sizeof control;
        std::memcpy(control.Signature, "QRN.Disk", 8);
        control.Timeout = 10;
        control.ControlCode = done_code;
        request.function = SRB_FUNCTION_IO_CONTROL;
        request.data_bytes = sizeof control;
        request.srb_flags = SRB_FLAGS_NO_QUEUE_FREEZE | SRB_FLAGS_BYPASS_FROZEN_QUEUE;
    }
    ~ControlRequest() { munmap(pages_, 2 * page_bytes); }

    std::uint8_t status(Rig& rig)
    {
        mprotect(pages_ + page_bytes, page_bytes, PROT_NONE);
        std::uint8_t* data = pages_ + page_bytes - request.data_bytes;
        std::memcpy(data, &control, request.data_bytes);
        request.data = request.data_bytes ? data : nullptr;
        rig.execute(request);
        return SRB_STATUS(request.srb_status);
    }
    machine::ScsiRequest request;
    SRB_IO_CONTROL control{};

private:
    static constexpr std::size_t page_bytes = 4096;
    std::uint8_t* pages_ = static_cast<std::uint8_t*>(
        mmap(nullptr, 2 * page_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
};

TEST(Completion, Control_requests_of_others_are_refused_and_complete_nothing)
{
    Rig rig;
    DispatchTap tap(rig);
    rig.run([&] {
        rig.main.stop();
        Pending read(rig);
        read.read(0, 0, 4096);
        const auto victim = reinterpret_cast<ULONG>(tap.seen().back().address);
        rig.machine.sleep_ms(10);

        void (*const variants[])(ControlRequest&) = {
            [](ControlRequest&) {},
            [](ControlRequest& other) { other.control.ReturnCode = 0; },
            [](ControlRequest& other) { other.control.ReturnCode = 4; },
            [](ControlRequest& other) { other.control.Signature[7] = 'K'; },
            [](ControlRequest& other) { other.control.ControlCode ^= 1; },
            [](ControlRequest& other) { other.request.data_bytes = 27; },
            [](ControlRequest& other) { other.request.data_bytes = 4; },
            [](ControlRequest& other) { other.request.data_bytes = 0; },
            [](ControlRequest& other) { other.request.lun = 200; },
            [](ControlRequest& other) { std::memcpy(other.control.Signature, "SCSIDISK", 8); }};
        for (const auto& vary : variants) {
            ControlRequest other(rig);
            other.control.ReturnCode = victim;
            vary(other);
            EXPECT_EQ(other.status(rig), SRB_STATUS_BAD_FUNCTION) << "variant " << (&vary - variants);
            EXPECT_FALSE(read.done());
        }
        rig.main.start();
        rig.machine.sleep_ms(5000);
        EXPECT_TRUE(read.ok());
    });
}

// --- Failed records

}  // namespace
}  // namespace scenario
