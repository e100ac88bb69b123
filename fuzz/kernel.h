// SPDX-License-Identifier: MIT
// For targets with the linked driver: a machine whose driver data is that of a load.
#pragma once

#include <functional>

#include <nt.h>

#include "fuzz/input.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"

namespace fuzz {

class DriverPiece {
public:
    explicit DriverPiece(machine::MachineConfig config = {}) : machine(std::move(config))
    {
        machine.log().set_sink([](const auto&) {}, false);
        machine::builtin_driver()->load();
    }

    // Runs body as a kernel thread, which must come to its end.
    void run(std::function<void()> body)
    {
        require(machine.run(std::move(body)) == machine::Outcome::finished, "the thread comes to its end");
    }

    machine::Machine machine;
};

}  // namespace fuzz
