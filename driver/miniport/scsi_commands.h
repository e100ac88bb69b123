// SPDX-License-Identifier: MIT
// Sense data, and the SCSI commands that are answered at once from the disk table. Called by HwStartIo
// in the port driver's context (DISPATCH_LEVEL, one call at a time).
#pragma once

#include <nt.h>

enum Sense_Index : ULONG {
    Sense_Bad_Command = 0,
    Sense_Bad_Field = 1,
    Sense_Out_Of_Range = 2,
    Sense_No_Medium = 3,
    Sense_Manual_Intervention = 4,
    Sense_Bad_Parameter = 5,
};

// Fails an SRB with CHECK CONDITION and autosense data. Any IRQL, also from workers.
void Set_Sense(PSCSI_REQUEST_BLOCK Srb, Sense_Index Index);

// The command reads or writes the SRB's data buffer.
bool Moves_Data(UCHAR Operation);

// Answers every command but READ(10) and WRITE(10); sets the SRB's status when it is not success.
void Answer_Command(PSCSI_REQUEST_BLOCK Srb);
