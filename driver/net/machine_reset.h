// SPDX-License-Identifier: MIT
// The forced reset of a machine whose system disk is gone during shutdown.
#pragma once

#include <nt.h>

// Leaves the marker in the real-time clock and resets the machine.
[[noreturn]] void Machine_Reset();
