// SPDX-License-Identifier: MIT
#include "driver/request/sense.h"

#include "driver/kernel/bytes.h"

namespace {

struct Sense_Triplet {
    UCHAR Key;
    UCHAR Asc;
    UCHAR Ascq;
};

constexpr Sense_Triplet Sense_Tbl[] = {
    {0x05, 0x20, 0x00},  // invalid command operation code
    {0x05, 0x24, 0x00},  // invalid field in CDB
    {0x05, 0x21, 0x00},  // logical block address out of range
    {0x02, 0x3A, 0x00},  // medium not present
    {0x02, 0x04, 0x03},  // logical unit not ready, manual intervention required
    {0x05, 0x26, 0x00},  // invalid field in parameter list
};

constexpr ULONG Sense_Bytes = 18;
constexpr UCHAR Sense_Current = 0x70;
constexpr UCHAR Sense_Additional_Bytes = 10;

}  // namespace

void Set_Sense(PSCSI_REQUEST_BLOCK Srb, Sense_Index Index)
{
    UCHAR Sense[Sense_Bytes] = {};
    Sense[0] = Sense_Current;
    Sense[2] = Sense_Tbl[Index].Key;
    Sense[7] = Sense_Additional_Bytes;
    Sense[12] = Sense_Tbl[Index].Asc;
    Sense[13] = Sense_Tbl[Index].Ascq;
    if (Srb->SenseInfoBuffer)
        RtlCopyMemory(Srb->SenseInfoBuffer, Sense, Smaller<ULONG>(Srb->SenseInfoBufferLength, Sense_Bytes));
    Srb->DataTransferLength = 0;
    Srb->ScsiStatus = SCSISTAT_CHECK_CONDITION;
    Srb->SrbStatus = SRB_STATUS_ERROR | SRB_STATUS_AUTOSENSE_VALID;
}
