// SPDX-License-Identifier: MIT
// The SCSI commands that are answered at once from the disk table. Called by HwStartIo
// in the port driver's context (DISPATCH_LEVEL, one call at a time).
#pragma once

#include <nt.h>

// The command reads or writes the SRB's data buffer.
bool Moves_Data(UCHAR Operation);

// Answers every command but READ(10) and WRITE(10); sets the SRB's status when it is not success.
void Answer_Command(PSCSI_REQUEST_BLOCK Srb);
