// SPDX-License-Identifier: MIT
#include "driver/image/net_image.h"

#include "driver/request/queues.h"
#include "driver/state/boot_param.h"

constexpr LONG Sync_Read = formats::kind_sync_read << 8 | formats::sub_request;

bool System_Disk_Has_Server()
{
    const auto& Id = Boot_Param.Disks[0].Disk_Id;
    return (Id[0] | Id[1] | Id[2] | Id[3]) != 0;
}

QRNH_NET_IMG::QRNH_NET_IMG()
{
    RtlZeroMemory(&Record, sizeof Record);
    KeInitializeEvent(&Done, SynchronizationEvent, FALSE);
    Record.pDone = &Done;
    Record.Status = Sync_Read;
}

bool QRNH_NET_IMG::Open()
{
    Record.Status = Sync_Read | Req_Brief;
    bool Opened = Create(nullptr, 0, 0, Img_Modify | Img_Must_Exist) >= 0;
    if (Opened)
        Record.Status = Sync_Read;
    return Opened;
}

LONG QRNH_NET_IMG::Read(ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    if (!System_Disk_Has_Server())
        return -Bytes;
    Record.Sector = Sector + 1;
    Record.Bytes = static_cast<ULONG>(Bytes);
    Record.pBuffer = static_cast<UCHAR*>(pBuffer);
    Req_Queue(&Record);
    KeWaitForSingleObject(&Done, Executive, KernelMode, FALSE, nullptr);
    return Record.Status == Req_Failed ? -Bytes : Bytes;
}
