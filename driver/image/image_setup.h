// SPDX-License-Identifier: MIT
// Brings the image objects into being from the local disk's partition table. A worker at PASSIVE_LEVEL that
// holds Img_Lock; the objects live as long as the system.
#pragma once

#include "driver/image/image_block.h"

extern QRNH_IMG_RW* volatile pQRNH_Img_Sys;   // the system image, or null
extern QRNH_OBJ_IMG* volatile pQRNH_Obj_Tmp;  // the temporary image, or null

// Whether a synchronisation can check the system image against its server in this start.
bool Img_Check_Comes();

// Returns pQRNH_Img_Sys. Partitions that do not fit the disk, or overlap another, are ignored. Until the
// synchronisation has checked it, an image that will be checked serves no reads.
QRNH_IMG_RW* QRNH_MBR_Init(PDEVICE_OBJECT pDevice, const formats::PartitionSector& Sector_0);

// Null without memory, or when the area cannot be opened.
QRNH_IMG_RW* QRNH_Img_Create(PDEVICE_OBJECT pDevice, ULONG Start, ULONG Count, ULONG Flags);
