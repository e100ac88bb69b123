// SPDX-License-Identifier: MIT
// The road of SRBs down and back: who may go when, and what an error, a busy unit or silence does.
#include <algorithm>
#include <numeric>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

constexpr unsigned depth = 254;

class Queue : public PortTest {
protected:
    using PortTest::PortTest;

    // Requests for one sector each, at LBA 0, 1, ... of a LUN.
    class Batch {
    public:
        Batch(Queue& test, unsigned count, std::uint8_t lun = 0) : test_(test)
        {
            for (unsigned index = 0; index < count; ++index) {
                requests_.push_back(std::make_unique<ScsiRequest>(test.port()));
                ScsiRequest& request = *requests_.back();
                request.set_read(lun, index % 64, sectors_[index % sectors_.size()].data(), 512);
                request.done = [this](ScsiRequest& finished) {
                    finished_.push_back(finished.srb_status);
                    if (KeGetCurrentIrql() != DISPATCH_LEVEL)
                        test_.miniport.complaints += "a completion below DISPATCH_LEVEL; ";
                };
            }
        }
        ScsiRequest& operator[](std::size_t index) { return *requests_[index]; }
        void submit()
        {
            for (auto& request : requests_)
                test_.port().submit(*request);
        }
        const std::vector<std::uint8_t>& finished() const { return finished_; }

    private:
        Queue& test_;
        std::array<std::array<std::uint8_t, 512>, 8> sectors_{};
        std::vector<std::unique_ptr<ScsiRequest>> requests_;
        std::vector<std::uint8_t> finished_;
    };
};

TEST_F(Queue, NextRequest_inside_HwStartIo_lets_254_requests_of_a_lun_go_down_one_by_one)
{
    hold_transfers();
    run([&] {
        Batch first(*this, 300), other(*this, 10, 1);
        first.submit();
        other.submit();
        EXPECT_EQ(miniport.held.size(), depth + 10);
        EXPECT_EQ(port().in_flight(), depth + 10);
        std::vector<UCHAR> tags;
        for (PSCSI_REQUEST_BLOCK srb : miniport.held)
            if (srb->Lun == 0)
                tags.push_back(srb->QueueTag);
        std::ranges::sort(tags);
        std::vector<UCHAR> all_tags(depth);
        std::iota(all_tags.begin(), all_tags.end(), UCHAR{0});
        EXPECT_EQ(tags, all_tags) << "one tag for each request of a LUN in flight";
        let_go();
        EXPECT_EQ(miniport.held.size(), 300 - depth);
        let_go();
        EXPECT_EQ(first.finished().size(), 300U);
        EXPECT_EQ(other.finished().size(), 10U);
        EXPECT_EQ(port().in_flight(), 0U);
    });
}

TEST_F(Queue, Nothing_goes_down_before_the_miniport_is_ready_for_the_next_request)
{
    hold_transfers();
    run([&] {
        Batch batch(*this, 5);
        miniport.announce_next = false;
        batch.submit();
        EXPECT_EQ(miniport.held.size(), 1U);
        miniport.reset_bus = [&] { miniport.next_request(); };
        port().reset_bus();
        EXPECT_EQ(miniport.held.size(), 2U);
    });
}

TEST_F(Queue, A_miniport_without_MultipleRequestPerLu_gets_one_request_of_a_lun_at_a_time)
{
    miniport.registration.MultipleRequestPerLu = FALSE;
    hold_transfers();
    run([&] {
        Batch first(*this, 3), other(*this, 3, 1);
        first.submit();
        other.submit();
        EXPECT_EQ(miniport.held.size(), 2U);
        for (int turn = 0; turn < 3; ++turn)
            let_go();
        EXPECT_EQ(first.finished().size() + other.finished().size(), 6U);
    });
}

TEST_F(Queue, An_error_freezes_the_queue_of_its_lun_until_it_is_released)
{
    hold_transfers();
    run([&] {
        port().set_auto_release(false);
        Batch failing(*this, 1), waiting(*this, 3), other(*this, 1, 1), passing(*this, 1), calm(*this, 1, 1);
        failing.submit();
        let_go(SRB_STATUS_ERROR);
        EXPECT_EQ(failing.finished(), std::vector<std::uint8_t>{SRB_STATUS_ERROR | SRB_STATUS_QUEUE_FROZEN});
        EXPECT_TRUE(port().frozen(0));
        waiting.submit();
        other.submit();
        EXPECT_EQ(miniport.held.size(), 1U) << "the other LUN goes on";
        passing[0].srb_flags |= SRB_FLAGS_BYPASS_FROZEN_QUEUE;
        passing.submit();
        EXPECT_EQ(miniport.held.size(), 2U);
        let_go();
        ScsiRequest release(port());
        release.function = SRB_FUNCTION_RELEASE_QUEUE;
        port().execute(release);
        EXPECT_TRUE(release.ok());
        EXPECT_FALSE(port().frozen(0));
        EXPECT_EQ(miniport.held.size(), 3U);
        let_go();
        EXPECT_EQ(waiting.finished(), std::vector<std::uint8_t>(3, SRB_STATUS_SUCCESS));

        calm[0].srb_flags |= SRB_FLAGS_NO_QUEUE_FREEZE;
        calm.submit();
        let_go(SRB_STATUS_ERROR);
        EXPECT_EQ(calm.finished(), std::vector<std::uint8_t>{SRB_STATUS_ERROR});
        EXPECT_FALSE(port().frozen(1));
    });
}

TEST_F(Queue, A_busy_unit_gets_its_request_again_in_order_but_not_for_ever)
{
    unsigned refusals = 3;
    miniport.start_io = [&](PSCSI_REQUEST_BLOCK srb) {
        if (srb->Cdb[0] != SCSIOP_READ || refusals == 0)
            return miniport.answer(srb);
        --refusals;
        srb->DataTransferLength = 0;
        miniport.complete(srb, SRB_STATUS_BUSY);
    };
    run([&] {
        Batch batch(*this, 4), stubborn(*this, 1);
        batch.submit();
        machine.sleep_ms(10'000);
        EXPECT_EQ(batch.finished(), std::vector<std::uint8_t>(4, SRB_STATUS_SUCCESS));
        EXPECT_EQ(batch[0].transferred, 512U);
        std::vector<unsigned> lbas;
        for (const SCSI_REQUEST_BLOCK& srb : miniport.seen)
            if (srb.Cdb[0] == SCSIOP_READ)
                lbas.push_back(srb.Cdb[5]);
        EXPECT_EQ(lbas, (std::vector<unsigned>{0, 0, 0, 0, 1, 2, 3}));

        refusals = 100;
        stubborn.submit();
        machine.sleep_ms(60'000);
        EXPECT_EQ(stubborn.finished(), std::vector<std::uint8_t>{SRB_STATUS_BUSY | SRB_STATUS_QUEUE_FROZEN});
        EXPECT_EQ(refusals, 100 - 21U) << "the answer goes through after 20 more tries";
    });
}

TEST_F(Queue, A_request_that_runs_out_of_time_has_the_bus_reset_and_others_never_do)
{
    hold_transfers();
    run([&] {
        Batch unlimited(*this, 2), limited(*this, 1);
        unlimited[0].timeout_seconds = 0;
        unlimited[1].timeout_seconds = 0xFFFFFFFF;
        unlimited.submit();
        machine.sleep_ms(137 * 366 * 86'400'000LL);  // longer than 0xFFFFFFFF seconds
        EXPECT_EQ(miniport.resets, 0U);

        limited[0].timeout_seconds = 3;
        held_status = SRB_STATUS_BUS_RESET;
        limited.submit();
        machine.sleep_ms(2900);
        EXPECT_EQ(miniport.resets, 0U);
        machine.sleep_ms(1200);
        EXPECT_EQ(miniport.resets, 1U);
        EXPECT_EQ(adapter().timeouts(), 1U);
        ASSERT_EQ(limited.finished().size(), 1U);
        EXPECT_EQ(SRB_STATUS(limited.finished()[0]), SRB_STATUS_BUS_RESET);
        machine.sleep_ms(60'000);
        EXPECT_EQ(miniport.resets, 1U) << "nothing is left that counts seconds";
    });
}

TEST_F(Queue, A_request_that_survives_the_reset_gets_its_whole_time_again)
{
    hold_transfers();
    miniport.reset_bus = [] {};
    run([&] {
        Batch batch(*this, 1);
        batch[0].timeout_seconds = 10;
        batch.submit();
        machine.sleep_ms(35'500);
        EXPECT_EQ(miniport.resets, 3U);
    });
}

TEST(Time, Of_an_SRB_that_runs_out_is_a_violation_where_the_miniport_keeps_time_itself)
{
    class Strict : public PortTest {
    public:
        Strict() : PortTest({{}, {.srbs_may_time_out = false}}) {}
        void TestBody() override
        {
            hold_transfers();
            const std::string message = violation_in([&] {
                ScsiRequest request(port());
                std::array<std::uint8_t, 512> sector{};
                request.set_read(1, 0, sector.data(), 512);
                request.timeout_seconds = 0xFFFFFFFF;
                port().submit(request);
                machine.sleep_ms(100'000);
                ScsiRequest limited(port());
                limited.set_read(1, 0, sector.data(), 512);
                limited.timeout_seconds = 7;
                port().execute(limited);
            });
            EXPECT_NE(message.find("an SRB of LUN 1 ran out of its 7 s"), std::string::npos) << message;
        }
    };
    Strict().TestBody();
}

class Holding : public Queue {
protected:
    Holding() : Queue(MachineConfig{}) {}
};

TEST_F(Holding, After_a_reset_nothing_goes_down_for_four_seconds)
{
    run([&] {
        port().reset_bus();
        const std::int64_t reset_ms = machine.now_ms();
        Batch batch(*this, 3), other(*this, 1, 1);
        ScsiRequest passing(port());
        passing.function = SRB_FUNCTION_FLUSH;
        passing.srb_flags = SRB_FLAGS_BYPASS_FROZEN_QUEUE;
        batch.submit();
        other.submit();
        miniport.seen.clear();
        machine.sleep_ms(3990);
        EXPECT_TRUE(miniport.seen.empty());
        port().execute(passing);
        EXPECT_EQ(machine.now_ms() - reset_ms, 4000);
        machine.sleep_ms(1);
        EXPECT_EQ(batch.finished().size() + other.finished().size(), 4u);
    });
}

TEST_F(Queue, A_completed_request_may_be_sent_again_from_its_own_completion)
{
    run([&] {
        constexpr unsigned rounds = 20'000;  // deeper than any stack, were each round a call in the last
        unsigned done = 0;
        std::array<std::uint8_t, 512> sector{};
        KEVENT end;
        KeInitializeEvent(&end, NotificationEvent, FALSE);
        ScsiRequest request(port());
        request.set_read(0, 5, sector.data(), sector.size());
        request.done = [&](ScsiRequest& finished) {
            if (!finished.ok() || ++done == rounds)
                KeSetEvent(&end, 0, FALSE);
            else
                port().submit(finished);
        };
        port().submit(request);
        KeWaitForSingleObject(&end, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(done, rounds);
    });
}

class SeededQueue : public Queue, public testing::WithParamInterface<unsigned> {
protected:
    SeededQueue() : Queue({{.seed = GetParam()}, {.reset_hold_100ns = 0}}) {}
};

TEST_P(SeededQueue, Calls_of_threads_timers_and_resets_never_meet_in_the_miniport)
{
    miniport.timer = [&] { miniport.request_timer(300); };
    miniport.reset_bus = [&] { miniport.request_timer(300); };
    run([&] {
        unsigned running = 4;
        KEVENT end;
        KeInitializeEvent(&end, NotificationEvent, FALSE);
        for (std::uint8_t thread = 0; thread < 4; ++thread) {
            machine.scheduler().spawn("client", [&, thread] {
                std::vector<std::uint8_t> data(512);
                for (int round = 0; round < 200; ++round) {
                    EXPECT_TRUE(port().read(thread % 2, 0, data.data(), 512));
                    EXPECT_TRUE(round % 50 != 0 || port().reset_bus());
                    if (round % 10 == 0)
                        machine.sleep_ms(1);
                }
                if (--running == 0)
                    KeSetEvent(&end, 0, FALSE);
            });
        }
        KeWaitForSingleObject(&end, Executive, KernelMode, FALSE, nullptr);
        EXPECT_GE(miniport.resets, 4U) << "those asked for at the same time may share one";
        EXPECT_GT(miniport.timer_calls, 0U);
    });
}

INSTANTIATE_TEST_SUITE_P(Seeds, SeededQueue, testing::Range(1U, 21U));

}  // namespace
