// SPDX-License-Identifier: MIT
// What must hold when faults have stopped, and what the servers must hold when the workstation is off.
#pragma once

#include "campaign/faults.h"
#include "campaign/load.h"
#include "campaign/workstation.h"

namespace campaign {

// All inside Machine::run, in this order, when the faults are over. Each fails the seed when it finds
// something.
void expect_all_complete(Workstation& station, Load& load);
void expect_requests_succeed(Workstation& station, Load& load);
void expect_slots_back(Workstation& station, Load& load, FaultSchedule& faults);
void expect_contents(Workstation& station, Load& load);
void expect_poll_totals(Workstation& station, Load& load);

}  // namespace campaign
