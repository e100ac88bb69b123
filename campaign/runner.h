// SPDX-License-Identifier: MIT
// Runs seeds, each in a process of its own and several at a time, and tells how it went.
#pragma once

#include "campaign/options.h"

namespace campaign {

// The exit status of the program.
int run_campaign(const Options& options, const char* program);

}  // namespace campaign
