// SPDX-License-Identifier: MIT
// Brings RAM caches into being: the registry of memory objects and the cache layer of each disk. Worker
// threads at PASSIVE_LEVEL, inside the negotiation of a disk; set-ups of different disks run one after the
// other.
#pragma once

#include "driver/cache/cache_layer.h"

// Once at start-up, before any worker runs.
void Cache_Setup_Init();

// The disk's cache layer over a memory of so many megabytes (low 16 bits count), which disks that name the
// same size share. Also stored in the disk's Local_Cache record. Null when there is none; not tried again.
QRNH_MEM_RW* QRN_MC_Init(ULONG MB, ULONG Lun);
