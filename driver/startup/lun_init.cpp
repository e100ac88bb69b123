// SPDX-License-Identifier: MIT
#include "driver/startup/lun_init.h"

#include "driver/cache/cache_setup.h"
#include "driver/engine/worker.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"
#include "driver/state/memory_probe.h"
#include "driver/state/settings.h"

constexpr LONG Slots_Default = 4;
constexpr LONG Slots_Max = static_cast<LONG>(RW_Threads_Max);
constexpr UCHAR Read_KB_Default = 8;
constexpr UCHAR Write_KB_Default = 6;

static void Set_Packet_Sizes(formats::Disk_Info& Disk)
{
    if (Disk.Disk_Flags != 0) {
        Disk.Read_KB = static_cast<UCHAR>((Disk.Read_KB >> 4) + 1);
        Disk.Write_KB = static_cast<UCHAR>((Disk.Write_KB >> 4) + 1);
    } else {
        Disk.Read_KB = Read_KB_Default;
        Disk.Write_KB = Write_KB_Default;
    }
}

static void Set_Cache_Kind(const formats::Disk_Info& Disk, ULONG Lun)
{
    if (Disk.Disk_Flags & formats::disk_flag_ram_cache) {
        if (PAE_Nums == -1)
            PAE_Nums = PAE_Probe();
    } else if (Disk.Disk_Flags & formats::disk_flag_one_slot) {
        Lun_Stats[Lun].Free_Slots = 1;
    } else {
        Local_Cache[Lun].State = Cache_None;
    }
}

static bool Valid_Slots(LONG Slots)
{
    return Slots >= 1 && Slots <= Slots_Max;
}

static void Set_Slots(formats::Disk_Info& Disk, ULONG Lun)
{
    LONG Slots = Lun_Stats[Lun].Free_Slots;
    if (!Valid_Slots(Slots))
        Slots = Disk.Disk_Flags & formats::disk_flag_slots;
    if (!Valid_Slots(Slots))
        Slots = Slots_Default;
    Disk.Disk_Flags = static_cast<UCHAR>((Disk.Disk_Flags & ~formats::disk_flag_slots) | Slots);
    Lun_Stats[Lun].Free_Slots = Slots;
    if (RW_THREADS < static_cast<ULONG>(Slots))
        RW_THREADS = static_cast<ULONG>(Slots);
}

static void Disk_Init(ULONG Lun)
{
    formats::Disk_Info& Disk = Boot_Param.Disks[Lun];
    KeInitializeEvent(&Local_Cache[Lun].Lock, SynchronizationEvent, TRUE);
    ULONG Sectors = Disk.Disk_Secs.get();
    if (Sectors == 0) {
        Local_Cache[Lun].State = Cache_None;
        return;
    }
    Set_Packet_Sizes(Disk);
    Set_Cache_Kind(Disk, Lun);
    DbgPrint("\nQRN SCSI: Lun:%d %X(%dM) Local:%X %d", Lun, Sectors, Sectors / 2048, Disk.Disk_Flags,
             Local_Cache[Lun].State);
    Set_Slots(Disk, Lun);
    Local_Cache[Lun].Set_Up = true;
}

void Lun_Init(PUNICODE_STRING pService_Key)
{
    Settings_Read(pService_Key);
    Cache_Setup_Init();
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun)
        Disk_Init(Lun);
    Workers_Start(RW_THREADS);
}
