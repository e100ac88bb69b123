// SPDX-License-Identifier: MIT
#include "driver/cache/cache_stats.h"

formats::CacheStats QRN_Cache_Stats[formats::disk_count_max];

static const QRNH_OBJ_RW* volatile Owners[formats::disk_count_max];

void Cache_Stats_Begin(ULONG Lun, const QRNH_OBJ_RW* pOwner, ULONG MB, ULONG Blocks)
{
    QRN_Cache_Stats[Lun].Blocks = Blocks;
    QRN_Cache_Stats[Lun].Cache_MB = MB;
    Owners[Lun] = pOwner;
}

void Cache_Stats_Add(const QRNH_OBJ_RW* pOwner, std::uint32_t formats::CacheStats::*Word, LONG Change)
{
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun)
        if (Owners[Lun] == pOwner)
            InterlockedExchangeAdd(reinterpret_cast<volatile LONG*>(&(QRN_Cache_Stats[Lun].*Word)), Change);
}
