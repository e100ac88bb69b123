// SPDX-License-Identifier: MIT
#include "driver/state/disk_table.h"

Lun_Counters Lun_Stats[formats::disk_count_max];
Local_Cache_Record Local_Cache[formats::disk_count_max];
volatile LONG Delay_Cnt;
