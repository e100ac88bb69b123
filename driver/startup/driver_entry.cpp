// SPDX-License-Identifier: MIT
// Start-up, in the loading thread at PASSIVE_LEVEL. The order is fixed: later steps rely on what
// earlier ones left in Boot_Param.

#include "driver/startup/driver_entry.h"

#include "driver/kernel/delay.h"
#include "driver/miniport/adapter.h"
#include "driver/startup/boot_record.h"
#include "driver/startup/handshake.h"
#include "driver/startup/image_search.h"
#include "driver/startup/lun_init.h"
#include "driver/state/boot_param.h"

constexpr LONG Transport_Poll_Ms = 50;
constexpr WCHAR Transport_Device[] = L"\\Device\\QRNNDIS";

// Runs once, in a system thread, after all boot drivers have been initialised.
static VOID NTAPI Bootinit_CallBack(PDRIVER_OBJECT, PVOID, ULONG)
{
    DbgPrint("\nQRN SCSI: Driver Bootinit CallBack");
    Boot_Param.Lun_Nums = static_cast<UCHAR>(Boot_Param.Disk_Nums - Boot_Param.Local_Nums);
}

static void No_Transport()
{
    DbgPrint("\nQRN SCSI: QRN_Send Is NULL");
    Boot_Param.Disk_Nums = static_cast<UCHAR>(Boot_Param.Disk_Nums - Boot_Param.Lun_Nums);
    Boot_Param.Lun_Nums = 0;
}

static void Disks_Known()
{
    DbgPrint("\nQRN SCSI: DCIO QRNNDIS OK");
    KeSetEvent(&Start_Event, IO_NO_INCREMENT, FALSE);
}

// Number of disks that the transport has found, once it has stopped looking.
static UCHAR Wait_For_Transport_Disks()
{
    if (!Ndis_Handover.pNdis_Block)
        return 0;
    UCHAR Disks;
    while ((Disks = Ndis_Handover.pNdis_Block->Disk_Nums) == formats::disk_nums_searching)
        Sleep_Ms(Transport_Poll_Ms);
    return Disks;
}

static void Take_Transport_Disks()
{
    if (Wait_For_Transport_Disks() == 0) {
        DbgPrint("\nQRN SCSI: DCIO QRNNDIS: Not Found Server");
        QRN_DCIO(Transport_Device, Ioctl_No_Server, nullptr, 0);
        return;
    }
    RtlCopyMemory(&Boot_Param, const_cast<formats::Boot_Param*>(Ndis_Handover.pNdis_Block),
                  sizeof Boot_Param);
    Disks_Known();
}

static void Find_Disk_Source()
{
    QRN_DCIO(Transport_Device, Ioctl_Handover, &Ndis_Handover, sizeof Ndis_Handover);
    if (!Ndis_Handover.QRN_Send) {
        No_Transport();
    } else if (Boot_Param.Disk_Nums != 0) {
        if (Ndis_Handover.pNdis_Block)
            Boot_Param.Boot_Flags |= Ndis_Handover.pNdis_Block->Boot_Flags;
        Disks_Known();
    } else {
        Take_Transport_Disks();
    }
}

// The disks are presented from the start, not after the boot drivers' reinitialisation.
static bool Boots_From_These_Disks()
{
    ULONG Mode = Boot_Param.Boot_Mode.get();
    return Mode == formats::boot_mode_network || Mode == formats::boot_mode_local_image;
}

static void Create_Link(PCWSTR Link, PCWSTR Target)
{
    UNICODE_STRING Link_Name, Target_Name;
    RtlInitUnicodeString(&Link_Name, Link);
    RtlInitUnicodeString(&Target_Name, Target);
    IoCreateSymbolicLink(&Link_Name, &Target_Name);
}

// Names of the boot disk as firmware knows it, made before the disk class driver has its devices.
static void Create_Arc_Links()
{
    Create_Link(L"\\ArcName\\multi(0)disk(0)rdisk(0)", L"\\Device\\Harddisk0\\Partition0");
    Create_Link(L"\\ArcName\\multi(0)disk(0)rdisk(0)partition(1)", L"\\Device\\Harddisk0\\Partition1");
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    // As the driver of a crash dump or of hibernation there is no driver object, and any IRQL.
    if (!DriverObject)
        return STATUS_UNSUCCESSFUL;
    DbgPrint("\nQRN SCSI: DriverEntry Bulid=" __DATE__ "," __TIME__);
    pDriver_Obj = DriverObject;
    KeInitializeEvent(&Start_Event, NotificationEvent, FALSE);
    QRN_Find_Dos();
    if (Boot_Param.Load_Mark.get() == formats::load_mark_refuse)
        return STATUS_UNSUCCESSFUL;
    Find_Disk_Source();
    if (Boot_Param.Disk_Nums == 0 || Boot_Param.Boot_Mode.get() == formats::boot_mode_local_image)
        Find_HDD_Image();
    DbgPrint("\nQRN SCSI: %02X %02X Disk:%d %d", Boot_Param.Boot_Mode.get(), Boot_Param.Boot_Flags,
             Boot_Param.Lun_Nums, Boot_Param.Disk_Nums);
    if (!Boots_From_These_Disks()) {
        Boot_Param.Lun_Nums = 0;
        IoRegisterBootDriverReinitialization(DriverObject, Bootinit_CallBack, nullptr);
    }
    Lun_Init(RegistryPath);
    Miniport_Register(DriverObject, RegistryPath);
    if (Boots_From_These_Disks())
        Create_Arc_Links();
    return STATUS_SUCCESS;
}
