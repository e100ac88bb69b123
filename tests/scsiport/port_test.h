// SPDX-License-Identifier: MIT
// A machine with the test miniport, and the frame of a test in it.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "machine/machine.h"
#include "machine/scsiport/internals.h"
#include "machine/scsiport/scsi_port.h"
#include "tests/scsiport/test_miniport.h"

class PortTest : public testing::Test {
protected:
    // Resets are a way into the miniport for many tests here, and hold nothing back.
    explicit PortTest(machine::MachineConfig config = {{}, {.reset_hold_100ns = 0}}) : machine(config) {}

    // Boots the miniport and runs body as a kernel thread; checks that the port driver kept the rules.
    void run(std::function<void()> body)
    {
        const machine::Outcome outcome = machine.run([&] {
            machine.boot(miniport);
            body();
        });
        EXPECT_EQ(outcome, machine::Outcome::finished);
        EXPECT_EQ(miniport.complaints, "");
    }

    // The message of the violation that body ends in; empty when it ends in none.
    std::string violation_in(std::function<void()> body)
    {
        machine::set_violation_handler([](const std::string& message) { throw std::logic_error(message); });
        std::string message;
        try {
            machine.run([&] {
                machine.boot(miniport);
                body();
            });
        } catch (const std::logic_error& broken_rule) {
            message = broken_rule.what();
        }
        machine::set_violation_handler({});
        return message;
    }

    // Transfers that arrive stay with the miniport until it is asked to reset its bus.
    void hold_transfers()
    {
        miniport.start_io = [this](PSCSI_REQUEST_BLOCK srb) { miniport.hold(srb); };
        miniport.reset_bus = [this] {
            while (!miniport.held.empty()) {
                miniport.complete(miniport.held.front(), held_status);
                miniport.held.pop_front();
            }
        };
    }
    void let_go(UCHAR srb_status = SRB_STATUS_SUCCESS)
    {
        held_status = srb_status;
        port().reset_bus();
    }

    machine::ScsiPort& port() { return machine.scsi(); }
    machine::Adapter& adapter() { return port().internals().adapter; }

    machine::Machine machine;
    TestMiniport miniport;
    UCHAR held_status = SRB_STATUS_SUCCESS;
};
