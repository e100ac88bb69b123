// SPDX-License-Identifier: MIT
// The notice to a disk's servers that the workstation goes down.
#pragma once

#include <nt.h>

// Sends the notice once to each server of the disk, for LUN 0 to the boot server too when it is another
// one. No answer is awaited. HwStartIo's context, DISPATCH_LEVEL.
void Send_Shutdown_Notices(ULONG Lun);
