// SPDX-License-Identifier: MIT
#include "driver/miniport/scsi_commands.h"

#include "driver/kernel/bytes.h"
#include "driver/request/sense.h"
#include "driver/state/boot_param.h"

namespace {

constexpr UCHAR Mode_Page_All = 0x3F;
constexpr UCHAR Mode_Page_Mask = 0x3F;

struct Inquiry_Data {
    UCHAR Device_Type = 0;  // direct access
    UCHAR Removable = 0;
    UCHAR Version = 2;
    UCHAR Format = 2;
    UCHAR Additional_Bytes = 0;
    UCHAR Reserved[2] = {0, 0};
    UCHAR Capabilities = 0x53;  // 32-bit wide, synchronous, command queuing, soft reset
    char Vendor[8] = {'Q', 'R', 'N', '.', 'D', 'i', 's', 'k'};
    char Product[16] = {'m', 'S', 'C', 'S', 'I', ' ', 'M', 'i', 'n', 'i', 'P', 'o', 'r', 't', 's', ' '};
    char Revision[4] = {'0', '0', '0', '1'};
};
static_assert(sizeof(Inquiry_Data) == 36);

struct Capacity_Data {
    formats::Be32 Last_Block;
    formats::Be32 Block_Bytes;
};

// No more than the SRB has room for.
template <typename Data>
void Answer(PSCSI_REQUEST_BLOCK Srb, const Data& Reply)
{
    if (ULONG Bytes = Smaller<ULONG>(Srb->DataTransferLength, sizeof Reply))
        RtlCopyMemory(Srb->DataBuffer, &Reply, Bytes);
}

void Inquiry(PSCSI_REQUEST_BLOCK Srb)
{
    constexpr UCHAR Vital_Product_Data = 0x01;
    if (Srb->Cdb[1] & Vital_Product_Data) {
        Set_Sense(Srb, Sense_Bad_Field);
        return;
    }
    Inquiry_Data Reply;
    Reply.Revision[3] = static_cast<char>('1' + Srb->Lun);
    Answer(Srb, Reply);
}

void Mode_Sense(PSCSI_REQUEST_BLOCK Srb)
{
    if ((Srb->Cdb[2] & Mode_Page_Mask) != Mode_Page_All) {
        Set_Sense(Srb, Sense_Bad_Field);
        return;
    }
    constexpr UCHAR Header[4] = {3, 0, 0, 0};  // nothing follows; not write-protected
    Answer(Srb, Header);
}

void Read_Capacity(PSCSI_REQUEST_BLOCK Srb)
{
    ULONG Sectors = Boot_Param.Disks[Srb->Lun].Disk_Secs.get();
    if (Sectors == 0) {
        Set_Sense(Srb, Sense_No_Medium);
        return;
    }
    Capacity_Data Reply;
    Reply.Last_Block.set(Sectors - 1);
    Reply.Block_Bytes.set(formats::sector_bytes);
    Answer(Srb, Reply);
}

}  // namespace

bool Moves_Data(UCHAR Operation)
{
    switch (Operation) {
    case SCSIOP_INQUIRY:
    case SCSIOP_MODE_SENSE:
    case SCSIOP_READ_CAPACITY:
    case SCSIOP_READ:
    case SCSIOP_WRITE:
        return true;
    default:
        return false;
    }
}

void Answer_Command(PSCSI_REQUEST_BLOCK Srb)
{
    switch (Srb->Cdb[0]) {
    case SCSIOP_INQUIRY:
        Inquiry(Srb);
        break;
    case SCSIOP_MODE_SENSE:
        Mode_Sense(Srb);
        break;
    case SCSIOP_READ_CAPACITY:
        Read_Capacity(Srb);
        break;
    case SCSIOP_TEST_UNIT_READY:
    case SCSIOP_FORMAT_UNIT:
    case SCSIOP_START_STOP_UNIT:
    case SCSIOP_SEND_DIAGNOSTIC:
    case SCSIOP_SEEK:
    case SCSIOP_VERIFY:
    case SCSIOP_SYNCHRONIZE_CACHE:
        break;  // success, nothing to do
    default:
        Set_Sense(Srb, Sense_Bad_Command);
        break;
    }
}
