// SPDX-License-Identifier: MIT
// The kernel's clocks above the scheduler's.
#pragma once

#include <cstdint>

#include "machine/scheduler/scheduler.h"

namespace machine {

// System time (100 ns units since the year 1601) at which the machine was switched on: the real one, or
// a fixed day on the simulated scheduler.
std::int64_t system_boot_time();

// The scheduler's time at the last tick of the clock.
Ticks time_of_last_tick();

// The first tick at which something due at this time is noticed.
Ticks tick_from(Ticks due);

}  // namespace machine
