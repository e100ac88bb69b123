// SPDX-License-Identifier: MIT
// The port driver's entry for every SRB. Called at DISPATCH_LEVEL, one call at a time per adapter.
#pragma once

#include <nt.h>

// Completes the SRB inside the call, or queues its record for the workers and leaves it pending.
BOOLEAN NTAPI HwStartIo(PVOID HwDeviceExtension, PSCSI_REQUEST_BLOCK Srb);
