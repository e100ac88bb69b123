// SPDX-License-Identifier: MIT
#include "driver/state/boot_param.h"

KEVENT Start_Event;
formats::Boot_Param Boot_Param;
Ndis_Handover_Block Ndis_Handover;
