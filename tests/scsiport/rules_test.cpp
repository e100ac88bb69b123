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
};
INSTANTIATE_TEST_SUITE_P(Each, BrokenRules, testing::ValuesIn(broken_rules),
                         [](const auto& instance) { return instance.param.name; });

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
