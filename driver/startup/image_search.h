// SPDX-License-Identifier: MIT
// The search of conventional memory for the descriptor of a local disk image, left there by local boot
// code. Loading thread, PASSIVE_LEVEL.
#pragma once

#include <nt.h>

// Fills pSaved_MBR; while no LUN is presented the image becomes LUN 0 in boot mode 7 and Start_Event
// is set. Initialises Img_Lock whatever it finds.
void Find_HDD_Image();
