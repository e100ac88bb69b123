// SPDX-License-Identifier: MIT
// The local disk and its images as they are first needed. Workers at PASSIVE_LEVEL.
#pragma once

#include "driver/image/image_block.h"

// Opens the local disk, which is numbered after the virtual ones, and makes the objects of its images. While
// it cannot be opened, every call tries again.
void Open_Local_Drive();

// The local disk is there, and a system image on it that cannot be used.
bool System_Image_Unusable();

// The disk's part of the temporary image, made when there is none; null when there is no such image. Found
// only tells of what was made before.
QRNH_IMG_RW* Lun_Image(ULONG Lun);
QRNH_IMG_RW* Found_Lun_Image(ULONG Lun);
