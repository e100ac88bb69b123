// SPDX-License-Identifier: MIT
// How far the driver has come, from its load to the shutdown of the system. Any thread; it only rises.
#pragma once

#include <nt.h>

enum Stop_Level_Value : LONG {
    Stop_Loaded = 0,
    Stop_Adapter_Found = 1,
    Stop_Shutdown = 3,  // and above: retries are cut short
};
extern volatile LONG Stop_Level;
