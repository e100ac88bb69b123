// SPDX-License-Identifier: MIT
#include "driver/state/local_boot.h"

#include "driver/state/boot_param.h"

UCHAR* pSaved_MBR;
KEVENT Img_Lock;

bool Images_Take_Part()
{
    return Boot_Param.Boot_Mode.get() == formats::boot_mode_local_image && pSaved_MBR;
}
