// SPDX-License-Identifier: MIT
// A workstation that stays on for days: every hour has some minutes of load and perhaps a short fault, and
// when it is quiet again nothing may have grown.
#pragma once

#include "campaign/faults.h"
#include "campaign/load.h"
#include "campaign/workstation.h"

namespace campaign {

// Makes the seed's plan one of a single start of so many hours.
void shape_for_uptime(Plan& plan, unsigned hours);

// So long the servers are off before, so that their clock in milliseconds passes 32 bits half-way.
std::int64_t off_before_uptime_ms(unsigned hours);

// Inside Machine::run, after the boot.
void live_for_hours(Workstation& station, Load& load, FaultSchedule& faults);

}  // namespace campaign
