// SPDX-License-Identifier: MIT
// Counts what the RAM caches do. Any thread, at IRQL up to DISPATCH_LEVEL.
#pragma once

#include <nt.h>

#include "driver/block/block_object.h"
#include "formats/boot_block.h"
#include "formats/cache_stats.h"

extern "C" __declspec(dllexport) formats::CacheStats QRN_Cache_Stats[formats::disk_count_max];

// From now on the disk's cache is counted. pOwner is what its blocks carry as their owner.
void Cache_Stats_Begin(ULONG Lun, const QRNH_OBJ_RW* pOwner, ULONG MB, ULONG Blocks);

// Adds to a word of the disk whose blocks the object owns; nothing when no disk is counted for it.
void Cache_Stats_Add(const QRNH_OBJ_RW* pOwner, std::uint32_t formats::CacheStats::*Word, LONG Change = 1);
