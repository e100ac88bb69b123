// SPDX-License-Identifier: MIT
// A miniport that breaks the rules is stopped at once, and told how.
#include <cstring>

#include "tests/scsiport/port_test.h"

using namespace machine;

namespace {

TestMiniport::Extension& extension_of(PSCSI_REQUEST_BLOCK srb)
{
    return *static_cast<TestMiniport::Extension*>(srb->SrbExtension);
}

struct BrokenRule {
    const char* name;
    const char* message;
    void (*start_io)(TestMiniport&, PSCSI_REQUEST_BLOCK);
};

class Rules : public PortTest {
protected:
    // Some reads one after the other, each through the extensions of all before it.
    void read_repeatedly()
    {
        std::uint8_t sector[512];
        for (int round = 0; round < 2000; ++round)
            port().read(0, 0, sector, sizeof(sector));
    }
};

class BrokenRules : public Rules, public testing::WithParamInterface<BrokenRule> {};

TEST_P(BrokenRules, Are_violations_with_a_clear_message)
{
    miniport.start_io = [&](PSCSI_REQUEST_BLOCK srb) {
        if (srb->Cdb[0] == SCSIOP_READ)
            GetParam().start_io(miniport, srb);
        else
            miniport.answer(srb);
    };
    const std::string message = violation_in([&] { read_repeatedly(); });
    EXPECT_NE(message.find(GetParam().message), std::string::npos) << message;
}

const BrokenRule broken_rules[] = {
    {"completed_twice_in_one_call", "RequestComplete twice",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         m.complete(srb, SRB_STATUS_SUCCESS);
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"completed_again_in_a_later_call", "not in flight",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         static SCSI_REQUEST_BLOCK* first;
         static SCSI_REQUEST_BLOCK copy;
         m.complete(srb, SRB_STATUS_SUCCESS);
         if (first != nullptr)
             m.complete(&copy, SRB_STATUS_SUCCESS);
         first = srb;
         copy = *srb;
     }},
    {"completed_while_pending", "SRB_STATUS_PENDING",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) { m.complete(srb, SRB_STATUS_PENDING); }},
    {"more_data_than_asked_for", "more data",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         ++srb->DataTransferLength;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"srb_changed_after_completion", "changed after RequestComplete",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         m.complete(srb, SRB_STATUS_SUCCESS);
         srb->SrbStatus = SRB_STATUS_ERROR;
     }},
    {"extension_written_after_completion", "written after its SRB was complete",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         static TestMiniport::Extension* last;
         if (last != nullptr)
             last->words[2] = 0;
         last = &extension_of(srb);
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"extension_overrun", "beyond the end of an SRB extension",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         std::memset(&extension_of(srb), 0, sizeof(TestMiniport::Extension) + 1);
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"sense_overrun", "sense data was written beyond",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         std::memset(srb->SenseInfoBuffer, 0x70, srb->SenseInfoBufferLength + 1U);
         m.complete(srb, SRB_STATUS_ERROR | SRB_STATUS_AUTOSENSE_VALID);
     }},
    {"link_of_the_port_driver_used", "changed an SRB's NextSrb",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         srb->NextSrb = nullptr;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"owner_of_an_srb_changed", "changed an SRB's OriginalRequest",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         srb->OriginalRequest = srb;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"sort_key_changed", "changed an SRB's QueueSortKey",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         ++srb->QueueSortKey;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"time_out_changed", "changed an SRB's TimeOutValue",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         srb->TimeOutValue = 1;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
    {"written_before_the_data", "wrote beside the data buffer",
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         static_cast<std::uint8_t*>(srb->DataBuffer)[-1] = 1;
         m.complete(srb, SRB_STATUS_SUCCESS);
     }},
};
INSTANTIATE_TEST_SUITE_P(Each, BrokenRules, testing::ValuesIn(broken_rules),
                         [](const auto& instance) { return instance.param.name; });

struct BadTouch {
    const char* name;
    bool write;                                         // the transfer
    void (*touch)(TestMiniport&, PSCSI_REQUEST_BLOCK);  // and completes
    const char* message;
};

class BufferRules : public Rules, public testing::WithParamInterface<BadTouch> {};

volatile std::uint8_t* data_of(PSCSI_REQUEST_BLOCK srb)
{
    return static_cast<volatile std::uint8_t*>(srb->DataBuffer);
}

TEST_P(BufferRules, A_touch_of_data_that_is_not_lent_is_told)
{
    miniport.start_io = [&](PSCSI_REQUEST_BLOCK srb) {
        if (srb->Cdb[0] == SCSIOP_READ || srb->Cdb[0] == SCSIOP_WRITE)
            GetParam().touch(miniport, srb);
        else
            miniport.answer(srb);
    };
    EXPECT_DEATH(run([&] {
                     std::uint8_t data[1536] = {};
                     for (int round = 0; round < 10; ++round)
                         GetParam().write ? port().write(1, 0, data, sizeof data)
                                          : port().read(1, 0, data, sizeof data);
                 }),
                 GetParam().message);
}

const BadTouch bad_touches[] = {
    {"read_after_completion", false,
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         m.complete(srb, SRB_STATUS_SUCCESS);
         data_of(srb)[0];
     },
     "touched after RequestComplete \\(LUN 1, command 28, 1536 bytes\\)"},
    {"written_some_transfers_later", false,
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         static volatile std::uint8_t* first = data_of(srb);
         static unsigned count = 0;
         if (++count == 10)
             *first = 1;
         m.complete(srb, SRB_STATUS_SUCCESS);
     },
     "touched after RequestComplete"},
    {"read_beyond_its_end", true,
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         data_of(srb)[srb->DataTransferLength];
         m.complete(srb, SRB_STATUS_SUCCESS);
     },
     "touched where it must not be \\(LUN 1, command 2A, 1536 bytes\\)"},
    {"data_to_be_written_changed", true,
     [](TestMiniport& m, PSCSI_REQUEST_BLOCK srb) {
         data_of(srb)[0] = 1;
         m.complete(srb, SRB_STATUS_SUCCESS);
     },
     "touched where it must not be"},
};
INSTANTIATE_TEST_SUITE_P(Each, BufferRules, testing::ValuesIn(bad_touches),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(Rules, Without_MapBuffers_the_address_of_the_data_is_of_no_use)
{
    miniport.registration.MapBuffers = FALSE;
    EXPECT_DEATH(run([] {}), "touched where it must not be \\(LUN 0, command 12, 36 bytes\\)");
}

TEST_F(Rules, A_notification_by_another_thread_while_the_miniport_runs_is_a_violation)
{
    bool inside = false;
    miniport.start_io = [&](PSCSI_REQUEST_BLOCK srb) {
        inside = true;
        for (int chance = 0; chance < 1000; ++chance)
            machine.scheduler().preempt();
        inside = false;
        miniport.answer(srb);
    };
    const std::string message = violation_in([&] {
        machine.scheduler().spawn("intruder", [&] {
            for (;;) {
                machine.sleep_ms(0);
                if (inside)
                    miniport.bus_change();
            }
        });
        read_repeatedly();
    });
    EXPECT_NE(message.find("outside the miniport's context"), std::string::npos) << message;
}

}  // namespace
