// SPDX-License-Identifier: MIT
// The port driver's entry for every SRB. Called at DISPATCH_LEVEL, one call at a time per adapter.
#pragma once

#include <nt.h>

// Completes the SRB inside the call, or queues its record for the workers and leaves it pending.
BOOLEAN NTAPI HwStartIo(PVOID HwDeviceExtension, PSCSI_REQUEST_BLOCK Srb);

constexpr LONG Delay_Over = -1;

// Delay_Over from the first 64 KB write to LUN 0 on; until then delay-load disks are held back.
// Written only by HwStartIo.
extern volatile LONG Delay_Cnt;
