// SPDX-License-Identifier: MIT
// The search of conventional memory for the descriptor of a local disk image, left there by local boot
// code. Loading thread, PASSIVE_LEVEL.
#pragma once

#include <nt.h>

#include "formats/boot_block.h"

// The partition sector that the descriptor points to (pool, tag "QRNM"), or null when none was found.
extern UCHAR* pSaved_MBR;
// Synchronization event used as a mutex around what boot mode 7 sets up lazily; signalled: free.
extern KEVENT Img_Lock;

// Fills pSaved_MBR; while no LUN is presented the image becomes LUN 0 in boot mode 7 and Start_Event
// is set. Initialises Img_Lock whatever it finds.
void Find_HDD_Image();
