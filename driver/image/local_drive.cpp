// SPDX-License-Identifier: MIT
#include "driver/image/local_drive.h"

#include "driver/image/file_io.h"
#include "driver/image/image_setup.h"
#include "driver/kernel/objects.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"

// Set under Img_Lock, once, when all that comes with them is there.
static PDEVICE_OBJECT volatile pLocal_Drive;
static QRNH_IMG_RW* volatile pLun_Img_RW[formats::disk_count_max];

static bool Unusable;

static bool Has_System_Partition(const formats::PartitionSector& Sector_0)
{
    for (const formats::PartitionEntry& Entry : Sector_0.Partition)
        if (Entry.Type == formats::partition_system_image)
            return true;
    return false;
}

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
    Unusable = !pQRNH_Img_Sys && (!Read || Has_System_Partition(Sector_0));
    pLocal_Drive = pDrive;
}

bool System_Image_Unusable()
{
    return Unusable;
}

QRNH_IMG_RW* Found_Lun_Image(ULONG Lun)
{
    return pLun_Img_RW[Lun];
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
