// SPDX-License-Identifier: MIT
#include "driver/engine/status_poll.h"

#include "driver/image/image_setup.h"
#include "driver/image/image_sync.h"
#include "driver/net/servers.h"
#include "driver/state/disk_table.h"
#include "formats/wire.h"

// What identifies the workstation: bytes 8 to 41 of the boot parameter block.
constexpr ULONG Identity_Offset = offsetof(formats::Boot_Param, Identity_8);
static_assert(Identity_Offset == 8);

static void Report_Disk(ULONG Lun, formats::PollDisk& Report)
{
    const Lun_Counters& Stats = Lun_Stats[Lun];
    auto Set = [](formats::Le32& Field, LONG Value) { Field.set(static_cast<ULONG>(Value)); };
    Report.Disk_Status = Boot_Param.Disks[Lun].Disk_Status;
    Set(Report.Rd_Seq, Stats.Rd.Seq);
    Set(Report.Rd_Secs, Stats.Rd.Secs);
    Set(Report.Rd_TimeOuts, Stats.Rd.TimeOuts);
    Set(Report.Wr_Seq, Stats.Wr.Seq);
    Set(Report.Wr_Secs, Stats.Wr.Secs);
    Set(Report.Wr_TimeOuts, Stats.Wr.TimeOuts);
}

// The first words of the cache object as they stand in memory.
static void Report_Cache(ULONG Lun, UCHAR (&Report)[16])
{
    if (const QRNH_OBJ_RW* pCache = Local_Cache[Lun].pMC_Write)
        RtlCopyMemory(Report, pCache, sizeof Report);
    else
        RtlZeroMemory(Report, sizeof Report);
}

static void Report_Image(formats::PollReply& Report)
{
    const QRNH_IMG_RW* pImage = pQRNH_Img_Sys;
    Report.Image_Units.set(pImage ? Img_Chunks(pImage->Header()) : 0);
    Report.Image_Position.set(pImage ? pImage->Header().Sync_Pos.get() : 0);
}

void Answer_Poll(UCHAR* pBuffer)
{
    if (!Ndis_Handover.QRN_Send)
        return;
    const formats::PollRequest Poll = *reinterpret_cast<const formats::PollRequest*>(pBuffer);
    auto pReply = reinterpret_cast<formats::PollReply*>(pBuffer);
    pReply->Mark.set(pReply->Mark.get() + 1);
    RtlCopyMemory(pReply->Cookie, Poll.Cookie_6, sizeof pReply->Cookie);
    RtlCopyMemory(pReply->Version, formats::poll_version, sizeof pReply->Version);
    RtlCopyMemory(pReply->Identity, reinterpret_cast<const UCHAR*>(&Boot_Param) + Identity_Offset,
                  sizeof pReply->Identity);
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun) {
        Report_Disk(Lun, pReply->Disks[Lun]);
        Report_Cache(Lun, pReply->Cache[Lun]);
    }
    Report_Image(*pReply);
    RtlCopyMemory(pBuffer + sizeof(formats::PollReply), &Poll.Poller, sizeof Poll.Poller);
    Send_To(Poll.Poller, pReply, sizeof(formats::PollReply), nullptr, 0);
}
