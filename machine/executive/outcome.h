// SPDX-License-Identifier: MIT
// How a run of the machine ended.
#pragma once

namespace machine {

enum class Outcome {
    finished,
    stalled,    // body waits for something that can never happen
    reset,      // the driver reset the machine through the ports
    bug_check,  // KeBugCheck; see Machine::bug_check_code()
};

}  // namespace machine
