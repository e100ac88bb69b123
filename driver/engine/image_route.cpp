// SPDX-License-Identifier: MIT
#include "driver/engine/image_route.h"

#include "driver/block/chunk_key.h"
#include "driver/image/file_io.h"
#include "driver/image/image_setup.h"
#include "driver/image/image_sync.h"
#include "driver/image/net_image.h"
#include "driver/kernel/bytes.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/objects.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"
#include "driver/state/local_boot.h"

namespace {

constexpr ULONG MBR_Sector = 1;  // the boot disk's partition sector

// Set under Img_Lock, once, when all that comes with them is there.
PDEVICE_OBJECT volatile pLocal_Drive;
QRNH_IMG_RW* volatile pLun_Img_RW[formats::disk_count_max];

// The local disk is there, and a system image on it that cannot be used.
bool System_Image_Unusable;

// A bit per chunk of disk 0 that was written past the images; chunks of larger disks share bits, which only
// sends reads to the server that need not go there. Changed by atomic OR.
constexpr ULONG Past_Bits = 0x40000;
volatile LONG Past_Images[Past_Bits / 32];

bool Is_Past(ULONG Chunk)
{
    return (Past_Images[Chunk % Past_Bits / 32] >> Chunk % 32 & 1) != 0;
}

void Set_Past(ULONG Sector, LONG Bytes)
{
    ULONG Last = (Sector + static_cast<ULONG>(Bytes / Sector_Bytes) - 1) / Chunk_Secs;
    for (ULONG Chunk = Sector / Chunk_Secs; Chunk <= Last; ++Chunk)
        InterlockedOr(&Past_Images[Chunk % Past_Bits / 32], static_cast<LONG>(1u << Chunk % 32));
}

// Length of the run of chunks that are like the first in having been written past the images, or not.
LONG Like_Run(ULONG Sector, LONG Bytes, bool& Past)
{
    ULONG Chunk = Sector / Chunk_Secs;
    Past = Is_Past(Chunk);
    LONG Length = static_cast<LONG>(Chunk_Secs - Sector % Chunk_Secs) * Sector_Bytes;
    while (Length < Bytes && Is_Past(++Chunk) == Past)
        Length += Chunk_64K;
    return Smaller(Length, Bytes);
}

LONG Fail(RW_Req* pReq, LONG Bytes)
{
    pReq->Status = Req_Failed;
    return Bytes;
}

bool Has_System_Partition(const formats::PartitionSector& Sector_0)
{
    for (const formats::PartitionEntry& Entry : Sector_0.Partition)
        if (Entry.Type == formats::partition_system_image)
            return true;
    return false;
}

// The local disk is numbered after the virtual ones. While it cannot be opened, every piece tries again.
void Open_Local_Drive()
{
    if (pLocal_Drive)
        return;
    Mutex_Guard Guard(Img_Lock);
    if (pLocal_Drive)
        return;
    char Name[] = "PhysicalDrive0";
    Name[sizeof Name - 2] = static_cast<char>('0' + Lun_Count());
    PDEVICE_OBJECT pDrive = QRNH_FSD_Obj(Name);
    if (!pDrive)
        return;
    formats::PartitionSector Sector_0;
    bool Read = Fsd_Read(pDrive, 0, &Sector_0, sizeof Sector_0) > 0;
    if (Read)
        QRNH_MBR_Init(pDrive, Sector_0);
    System_Image_Unusable = !pQRNH_Img_Sys && (!Read || Has_System_Partition(Sector_0));
    pLocal_Drive = pDrive;
}

// Zeros, where neither a local disk nor a server can hold the disk's data.
LONG Without_System_Image(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    bool Only_Local = pEntry->Lun == 0 && !System_Disk_Has_Server();
    if (Only_Local && (System_Image_Unusable || pReq->Write))
        return Fail(pReq, Bytes);
    // What is written is never forgotten: it goes to the server.
    if (Boot_Param.Local_Nums != 0 || System_Image_Unusable || pReq->Write)
        return -Bytes;
    RtlZeroMemory(pEntry->pData, static_cast<SIZE_T>(Bytes));
    return Bytes;
}

void Start_Synchronisation()
{
    if (Delay_Cnt == Delay_Over && Boot_Param.Local_Nums != 0 &&
        !(Boot_Param.Boot_Flags & formats::boot_flag_no_image_sync))
        Sync_Start_Once();
}

QRNH_IMG_RW* Lun_Image(ULONG Lun)
{
    if (!pLun_Img_RW[Lun] && pQRNH_Obj_Tmp) {
        Mutex_Guard Guard(Img_Lock);
        if (!pLun_Img_RW[Lun])
            pLun_Img_RW[Lun] = Create_Object<QRNH_IMG_RW>(static_cast<QRNH_OBJ_IMG*>(pQRNH_Obj_Tmp), Lun);
    }
    return pLun_Img_RW[Lun];
}

LONG Route_Write(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    QRNH_IMG_RW* pImage = Lun_Image(pEntry->Lun);
    LONG Result = pImage ? pImage->Write(pEntry->Lun, pEntry->Sector, pEntry->pData, Bytes) : -Bytes;
    if (Result < 0 && pEntry->Lun == 0 && !System_Disk_Has_Server())
        return Fail(pReq, Bytes);
    return Result;
}

LONG Read_System_Image(const RW_Entry* pEntry, LONG Bytes)
{
    bool Past;
    LONG Run = Like_Run(pEntry->Sector, Bytes, Past);
    return Past ? -Run : pQRNH_Img_Sys->Read(0, pEntry->Sector, pEntry->pData, Run);
}

LONG Route_Read(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    QRNH_IMG_RW* pImage = Lun_Image(pEntry->Lun);
    LONG Result = pImage ? pImage->Read(pEntry->Lun, pEntry->Sector, pEntry->pData, Bytes) : -Bytes;
    if (Result == Img_Failed)
        return Fail(pReq, Bytes);
    if (Result > 0 || pEntry->Lun != 0)
        return Result;
    LONG Missing = -Result;
    Result = Read_System_Image(pEntry, Missing);
    if (Result > 0)
        return Result;
    if (System_Disk_Has_Server())
        return Result == Img_Failed ? -Missing : Result;
    if (Result == Img_Failed)
        return Fail(pReq, Bytes);
    RtlZeroMemory(pEntry->pData, static_cast<SIZE_T>(-Result));
    return -Result;
}

}  // namespace

LONG Img_Route(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    if (pEntry->Lun == 0 && pEntry->Sector == MBR_Sector) {
        if (!pReq->Write) {
            RtlCopyMemory(pEntry->pData, pSaved_MBR, formats::sector_bytes);
            return Sector_Bytes;
        }
        RtlCopyMemory(pSaved_MBR, pEntry->pData, formats::sector_bytes);
    }
    Open_Local_Drive();
    if (!pQRNH_Img_Sys)
        return Without_System_Image(pEntry, pReq, Bytes);
    Start_Synchronisation();
    return pReq->Write ? Route_Write(pEntry, pReq, Bytes) : Route_Read(pEntry, pReq, Bytes);
}

// First the system image is out of the way, then what the disk's own image may still hold of an older write.
void Img_Written_Past(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    if (pEntry->Lun == 0)
        Set_Past(pEntry->Sector, Bytes);
    QRNH_IMG_RW* pImage = pLun_Img_RW[pEntry->Lun];
    if (pImage && !pImage->Forget(pEntry->Sector, Bytes))
        pReq->Status = Req_Failed;
}

LONG Img_Server_Lost(RW_Entry* pEntry, const RW_Req* pReq, LONG Bytes)
{
    if (pReq->Write || pEntry->Lun != 0 || !pQRNH_Img_Sys)
        return -Bytes;
    Serve_Unchecked(pQRNH_Img_Sys);
    LONG Result = Read_System_Image(pEntry, Bytes);
    return Result > 0 ? Result : -Bytes;
}
