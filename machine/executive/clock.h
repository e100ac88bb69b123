// SPDX-License-Identifier: MIT
// The kernel's clocks above the scheduler's.
#pragma once

#include <cstdint>

namespace machine {

// System time (100 ns units since the year 1601) at which the machine was switched on: the real one, or
// a fixed day on the simulated scheduler.
std::int64_t system_boot_time();

}  // namespace machine
