// SPDX-License-Identifier: MIT
// Which chunks of disk 0 were written past the images in this start, to RAM cache or server: the system image
// no longer counts for them. Workers; changed by atomic OR.
#pragma once

#include <nt.h>

void Set_Past_Images(ULONG Sector, LONG Bytes);

// Length of the run of chunks that are like the first in having been written past the images, or not; at most
// Bytes.
LONG Like_Run(ULONG Sector, LONG Bytes, bool& Past);
