// SPDX-License-Identifier: MIT
// All of one seed, in a process of its own: prints what was drawn, runs the starts, and ends the process when
// something is wrong.
#pragma once

#include <cstdint>

#include "campaign/options.h"

namespace campaign {

// The last lines that it prints: "met: COUNT NAME" for each thing met, "simulated: SECONDS", "events: HASH".
void run_seed(std::uint64_t seed, const Options& options);

}  // namespace campaign
