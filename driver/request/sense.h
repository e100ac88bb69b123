// SPDX-License-Identifier: MIT
// Sense data: what a failed SRB tells its sender.
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
