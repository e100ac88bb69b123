// SPDX-License-Identifier: MIT
// Registration with the SCSI port driver and the adapter-level callbacks.
#pragma once

#include <nt.h>

#include "driver/common/locks.h"

// The miniport device extension: one per adapter, allocated by the port driver.
struct Hw_Ext {
    PDEVICE_OBJECT pPort_Dev;  // the port driver's controller device; completion notices go to it
    KEVENT Chan_Free;          // synchronization: signalled while the channel is idle
    PIRP pChan_Irp;            // the channel's one IRP, used again for every notice and never freed
    // Written only by the thread that holds the channel.
    SCSI_REQUEST_BLOCK Chan_Srb;
    SRB_IO_CONTROL Chan_Ioctl;  // the data of Chan_Srb
    Mutex_Gate Chan_Gate;       // of Chan_Free
};

constexpr char Chan_Signature[] = "QRN.Disk";  // of an SRB_IO_CONTROL, without the terminator
constexpr ULONG Done_Code = 0x1B2183;          // the notice's control code

// How far the driver has come.
enum Stop_Level_Value : LONG {
    Stop_Loaded = 0,
    Stop_Adapter_Found = 1,
    Stop_Shutdown = 3,  // and above: retries are cut short
};
extern volatile LONG Stop_Level;

// Registers the miniport; the port driver may call HwFindAdapter and HwInitialize before this returns.
NTSTATUS Miniport_Register(PDRIVER_OBJECT pDriver, PUNICODE_STRING pService_Key);

// Miniport timer routine: watches for the moment when all disks are presented, then asks for a bus scan.
VOID NTAPI Bus_Change_Timer(PVOID HwDeviceExtension);
