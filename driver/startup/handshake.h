// SPDX-License-Identifier: MIT
// The handshake with the transport driver. Loading thread, PASSIVE_LEVEL.
#pragma once

#include "driver/state/boot_param.h"

constexpr ULONG Ioctl_Handover = 0x8000100;   // Boot_Param in, Ndis_Handover out
constexpr ULONG Ioctl_No_Server = 0x8000104;  // Boot_Param in: no server was found

// One device-control request to the named device with Boot_Param as input. Start_Event serves as its
// completion event and is left reset.
NTSTATUS QRN_DCIO(PCWSTR Device_Name, ULONG Control_Code, PVOID pOutput, ULONG Output_Bytes);
