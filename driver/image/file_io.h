// SPDX-License-Identifier: MIT
// Disks and volumes of the workstation: opened by their DOS device names, and read and written in runs of
// 512-byte sectors. System threads at PASSIVE_LEVEL; every call lasts until the device has finished. Calls
// share nothing, so several threads may use one device at once.
#pragma once

#include <nt.h>

constexpr ULONG Fsd_Name_Max = 115;  // characters of a device name

// The device that the name (without "\DosDevices\") denotes, past any filters above it; null when it cannot
// be opened or the name is too long. Stays referenced for ever.
PDEVICE_OBJECT QRNH_FSD_Obj(const char* Name);

// Return the bytes transferred, at most Bytes, or -Bytes on failure, which a null device always is.
LONG Fsd_Read(PDEVICE_OBJECT pDevice, ULONGLONG Sector, PVOID pBuffer, LONG Bytes);
LONG Fsd_Write(PDEVICE_OBJECT pDevice, ULONGLONG Sector, PVOID pBuffer, LONG Bytes);

// Everything written so far lies on the medium afterwards; false on failure. A device that knows no such
// request, or none at all, has nothing to lose.
bool Fsd_Flush(PDEVICE_OBJECT pDevice);
