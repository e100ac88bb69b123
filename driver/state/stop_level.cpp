// SPDX-License-Identifier: MIT
#include "driver/state/stop_level.h"

volatile LONG Stop_Level;
