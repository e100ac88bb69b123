// SPDX-License-Identifier: MIT
#include "driver/miniport/start_io.h"

#include "driver/kernel/bytes.h"
#include "driver/miniport/scsi_commands.h"
#include "driver/net/shutdown_notice.h"
#include "driver/request/channel.h"
#include "driver/request/queues.h"
#include "driver/request/request.h"
#include "driver/request/sense.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"
#include "driver/state/stop_level.h"

namespace {

enum class Outcome { Complete, Pending };

constexpr ULONG Delay_Trigger_Bytes = 65536;
constexpr ULONG Lba_Without_Sector = 0xFFFFFFFF;  // its engine sector, LBA + 1, would wrap around to 0
constexpr UCHAR Write_Bit = 2;  // of the operation code: set in WRITE(10), clear in READ(10)

// The record lives in the SRB's extension, which comes with whatever it held before.
RW_Req* Fill_Record(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    auto pReq = static_cast<RW_Req*>(Srb->SrbExtension);
    pReq->pSrb = Srb;
    pReq->pDone = pExt;
    pReq->Status = 0;
    pReq->Lun = Srb->Lun;
    pReq->Write = 0;
    pReq->Bytes = 0;
    pReq->pBuffer = nullptr;
    pReq->Sector = 0;
    return pReq;
}

bool Delayed(ULONG Lun)
{
    return Delay_Cnt != Delay_Over && Lun != 0 &&
           (Boot_Param.Disks[Lun].Disk_Flags & formats::disk_flag_delay_load) != 0;
}

// The first large write to LUN 0 tells that the system is up: delayed disks may show themselves.
void End_Delay(Hw_Ext* pExt)
{
    Delay_Cnt = Delay_Over;
    DbgPrint("\nQRN SCSI: BusChangeDetected For Delay Load\n");
    ScsiPortNotification(BusChangeDetected, pExt, 0);
}

bool Ends_Delay(const RW_Req* pReq)
{
    return Delay_Cnt != Delay_Over && pReq->Lun == 0 && pReq->Write && pReq->Bytes == Delay_Trigger_Bytes;
}

Outcome Fail(PSCSI_REQUEST_BLOCK Srb, Sense_Index Index)
{
    Set_Sense(Srb, Index);
    return Outcome::Complete;
}

// READ(10) and WRITE(10). The length is the SRB's; the CDB's transfer length is not used.
Outcome Transfer(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    ULONG Lba = reinterpret_cast<const formats::Be32*>(&Srb->Cdb[2])->get();
    ULONG Bytes = Srb->DataTransferLength;
    ULONGLONG End = static_cast<ULONGLONG>(Lba) + Bytes / formats::sector_bytes;
    if (End > Boot_Param.Disks[Srb->Lun].Disk_Secs.get() || Lba == Lba_Without_Sector)
        return Fail(Srb, Sense_Out_Of_Range);
    if (Bytes % formats::sector_bytes != 0)
        return Fail(Srb, Sense_Bad_Field);

    RW_Req* pReq = Fill_Record(pExt, Srb);
    pReq->Write = Srb->Cdb[0] & Write_Bit;
    pReq->Bytes = Bytes;
    pReq->pBuffer = static_cast<UCHAR*>(Srb->DataBuffer);
    pReq->Sector = Lba + 1;
    Srb->SrbStatus = SRB_STATUS_PENDING;
    if (Delayed(pReq->Lun))
        return Fail(Srb, Sense_Out_Of_Range);
    if (Ends_Delay(pReq))
        End_Delay(pExt);
    InterlockedIncrement(&Lun_Stats[Srb->Lun].Queued);
    Req_Queue(pReq);
    return Outcome::Pending;
}

// The buffer of a transfer is locked for one direction. Senders that name neither or both are trusted. A
// class driver never leaves the buffer out, others may.
bool Unfit_Buffer(PSCSI_REQUEST_BLOCK Srb)
{
    ULONG Named = Srb->SrbFlags & (SRB_FLAGS_DATA_IN | SRB_FLAGS_DATA_OUT);
    bool Wrong_Direction = Named == (Srb->Cdb[0] == SCSIOP_WRITE ? SRB_FLAGS_DATA_IN : SRB_FLAGS_DATA_OUT);
    bool No_Buffer = !Srb->DataBuffer && Srb->DataTransferLength != 0;
    return (Wrong_Direction || No_Buffer) && Moves_Data(Srb->Cdb[0]);
}

UCHAR Address_Status(PSCSI_REQUEST_BLOCK Srb)
{
    if (Srb->PathId != 0)
        return SRB_STATUS_INVALID_PATH_ID;
    if (Srb->TargetId != 0)
        return SRB_STATUS_INVALID_TARGET_ID;
    if (Srb->Lun >= Valid_Luns())
        return SRB_STATUS_INVALID_LUN;
    return SRB_STATUS_SUCCESS;
}

Outcome Execute(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    Srb->SrbStatus = Address_Status(Srb);
    if (Srb->SrbStatus != SRB_STATUS_SUCCESS)
        return Outcome::Complete;
    if (Unfit_Buffer(Srb))
        return Fail(Srb, Sense_Bad_Field);
    if (Srb->Cdb[0] == SCSIOP_READ || Srb->Cdb[0] == SCSIOP_WRITE)
        return Transfer(pExt, Srb);
    Answer_Command(Srb);
    return Outcome::Complete;
}

// A notice is told by the SRB's address: anyone can send its signature, and the port driver keeps fields such
// as OriginalRequest for itself while an SRB is here.
Outcome Io_Control(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    if (Srb != &pExt->Chan_Srb) {
        Srb->SrbStatus = SRB_STATUS_BAD_FUNCTION;
        return Outcome::Complete;
    }
    Lun_Counters& Stats = Lun_Stats[Srb->Lun];
    ULONG Srb_Address = pExt->Chan_Ioctl.ReturnCode;
    if (Srb_Address != 0) {
        InterlockedDecrement(&Stats.Queued);
        ScsiPortNotification(RequestComplete, pExt, reinterpret_cast<PSCSI_REQUEST_BLOCK>(Srb_Address));
    } else {
        ULONG Slots = Boot_Param.Disks[Srb->Lun].Disk_Flags & formats::disk_flag_slots;
        if (static_cast<ULONG>(Stats.Queued) < Slots)
            Srb->SrbStatus = SRB_STATUS_BAD_FUNCTION;
    }
    return Outcome::Complete;
}

// Tells the servers, and lets a worker stop the image synchronisation before LUN 0's SRB completes.
Outcome Shutdown(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    DbgPrint("\nQRN SCSI: SRB_FUNCTION_SHUTDOWN:%d", Srb->Lun);
    if (Stop_Level < Stop_Shutdown)
        Stop_Level = Stop_Shutdown;
    if (Srb->Lun >= formats::disk_count_max)
        return Outcome::Complete;
    Send_Shutdown_Notices(Srb->Lun);
    if (Srb->Lun != 0)
        return Outcome::Complete;
    RW_Req* pStop = Fill_Record(pExt, Srb);
    Srb->SrbStatus = SRB_STATUS_PENDING;
    Req_Queue(pStop);
    return Outcome::Pending;
}

Outcome Dispatch(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb)
{
    switch (Srb->Function) {
    case SRB_FUNCTION_EXECUTE_SCSI:
        return Execute(pExt, Srb);
    case SRB_FUNCTION_IO_CONTROL:
        return Io_Control(pExt, Srb);
    case SRB_FUNCTION_SHUTDOWN:
        return Shutdown(pExt, Srb);
    case SRB_FUNCTION_FLUSH:
    case SRB_FUNCTION_RESET_BUS:
        return Outcome::Complete;
    default:
        Srb->SrbStatus = SRB_STATUS_BAD_FUNCTION;
        return Outcome::Complete;
    }
}

}  // namespace

BOOLEAN NTAPI HwStartIo(PVOID HwDeviceExtension, PSCSI_REQUEST_BLOCK Srb)
{
    // First of all, so that the port driver sends the next SRB while this one is queued.
    ScsiPortNotification(NextRequest, HwDeviceExtension);
    Srb->SrbStatus = SRB_STATUS_SUCCESS;
    Srb->ScsiStatus = SCSISTAT_GOOD;
    if (Dispatch(static_cast<Hw_Ext*>(HwDeviceExtension), Srb) == Outcome::Complete)
        ScsiPortNotification(RequestComplete, HwDeviceExtension, Srb);
    return TRUE;
}
