// SPDX-License-Identifier: MIT
// A machine with the driver's data as a load leaves it, for tests of single pieces of the linked driver.
#pragma once

#include <functional>

#include <gtest/gtest.h>

#include "machine/loader/driver_image.h"
#include "machine/machine.h"

class DriverPiece {
public:
    explicit DriverPiece(machine::MachineConfig config = {}) : machine(std::move(config))
    {
        machine::builtin_driver()->load();
    }

    // Runs body as a kernel thread to its end.
    void run(std::function<void()> body)
    {
        EXPECT_EQ(machine.run(std::move(body)), machine::Outcome::finished) << machine.log().text();
    }

    machine::Machine machine;
};
