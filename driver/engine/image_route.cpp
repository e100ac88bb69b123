// SPDX-License-Identifier: MIT
#include "driver/engine/image_route.h"

#include "driver/block/chunk_key.h"
#include "driver/image/image_setup.h"
#include "driver/image/image_sync.h"
#include "driver/image/local_drive.h"
#include "driver/image/net_image.h"
#include "driver/image/past_images.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"
#include "driver/state/local_boot.h"

namespace {

constexpr ULONG MBR_Sector = 1;  // the boot disk's partition sector

LONG Fail(RW_Req* pReq, LONG Bytes)
{
    pReq->Status = Req_Failed;
    return Bytes;
}

// Zeros, where neither a local disk nor a server can hold the disk's data.
LONG Without_System_Image(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    bool Only_Local = pEntry->Lun == 0 && !System_Disk_Has_Server();
    if (Only_Local && (System_Image_Unusable() || pReq->Write))
        return Fail(pReq, Bytes);
    // What is written is never forgotten: it goes to the server.
    if (Boot_Param.Local_Nums != 0 || System_Image_Unusable() || pReq->Write)
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
        Set_Past_Images(pEntry->Sector, Bytes);
    QRNH_IMG_RW* pImage = Found_Lun_Image(pEntry->Lun);
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
