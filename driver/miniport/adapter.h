// SPDX-License-Identifier: MIT
// Registration with the SCSI port driver and the adapter-level callbacks.
#pragma once

#include <nt.h>

extern PDRIVER_OBJECT pDriver_Obj;  // kept from DriverEntry on

// Registers the miniport; the port driver may call HwFindAdapter and HwInitialize before this returns.
NTSTATUS Miniport_Register(PDRIVER_OBJECT pDriver, PUNICODE_STRING pService_Key);

// Miniport timer routine: watches for the moment when all disks are presented, then asks for a bus scan.
VOID NTAPI Bus_Change_Timer(PVOID HwDeviceExtension);
