// SPDX-License-Identifier: MIT
// The last step before the miniport is registered: settings, disk table, queues and threads.
#pragma once

#include <nt.h>

// Runs once, in the loading thread, when Boot_Param is final and before any worker exists.
void Lun_Init(PUNICODE_STRING pService_Key);
