// SPDX-License-Identifier: MIT
#include "driver/image/image_setup.h"

#include "driver/image/file_io.h"
#include "driver/image/net_image.h"
#include "driver/kernel/objects.h"
#include "driver/state/boot_param.h"

QRNH_IMG_RW* volatile pQRNH_Img_Sys;
QRNH_OBJ_IMG* volatile pQRNH_Obj_Tmp;

constexpr ULONGLONG Area_Sectors_Max = 0x100000000;  // sector numbers of areas have 32 bits

// No request tells the size of a disk; one that has the last sector has them all.
static bool Fits(PDEVICE_OBJECT pDevice, ULONG Start, ULONG Count)
{
    ULONGLONG End = ULONGLONG{Start} + Count;
    if (Start == 0 || Count < formats::first_block_sector || End > Area_Sectors_Max)
        return false;
    UCHAR Sector[formats::sector_bytes];
    constexpr LONG Bytes = sizeof Sector;
    return Fsd_Read(pDevice, End - 1, Sector, Bytes) == Bytes;
}

// Null, and the object is freed, when the area cannot be opened.
static QRNH_OBJ_IMG* Opened(QRNH_OBJ_IMG* pArea, PDEVICE_OBJECT pDevice, ULONG Start, ULONG Count,
                            ULONG Flags)
{
    if (pArea && pArea->Create(pDevice, Start, Count, Flags) >= 0)
        return pArea;
    Free_Object(pArea);
    return nullptr;
}

bool Img_Check_Comes()
{
    return Boot_Param.Local_Nums != 0 && !(Boot_Param.Boot_Flags & formats::boot_flag_no_image_sync) &&
           System_Disk_Has_Server() && Ndis_Handover.QRN_Send;
}

QRNH_IMG_RW* QRNH_Img_Create(PDEVICE_OBJECT pDevice, ULONG Start, ULONG Count, ULONG Flags)
{
    auto pArea = Create_Object<QRNH_OBJ_IMG>();
    if (!pArea)
        DbgPrint("\nQRNH_Img_Create: pObj_Img Is NULL");
    pArea = Opened(pArea, pDevice, Start, Count, Flags);
    if (!pArea)
        return nullptr;
    auto pImage = Create_Object<QRNH_IMG_RW>(pArea, ULONG{0});
    if (!pImage) {
        DbgPrint("\nQRNH_Img_Create: pImg_RW Is NULL");
        Free_Object(pArea);
    }
    return pImage;
}

QRNH_IMG_RW* QRNH_MBR_Init(PDEVICE_OBJECT pDevice, const formats::PartitionSector& Sector_0)
{
    for (const formats::PartitionEntry& Entry : Sector_0.Partition) {
        ULONG Start = Entry.Start.get();
        ULONG Count = Entry.Count.get();
        if (formats::overlaps_another(Sector_0, Entry))
            continue;
        if (Entry.Type == formats::partition_system_image && !pQRNH_Img_Sys && Fits(pDevice, Start, Count)) {
            DbgPrint("\nQRNH_MBR_Init: Create pQRNH_Img_Sys");
            QRNH_IMG_RW* pImage = QRNH_Img_Create(pDevice, Start, Count, 0);
            if (pImage && Img_Check_Comes())
                pImage->Trust.Await_Check();
            pQRNH_Img_Sys = pImage;
        }
        if (Entry.Type == formats::partition_temporary_image && !pQRNH_Obj_Tmp &&
            Fits(pDevice, Start, Count)) {
            DbgPrint("\nQRNH_MBR_Init: Create pQRNH_Obj_Tmp");
            pQRNH_Obj_Tmp = Opened(Create_Object<QRNH_OBJ_IMG>(), pDevice, Start, Count, Img_Always_New);
        }
    }
    DbgPrint("\nQRNH_MBR_Init End");
    return pQRNH_Img_Sys;
}
