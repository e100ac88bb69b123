// SPDX-License-Identifier: MIT
#include "driver/state/disk_table.h"

Lun_Counters Lun_Stats[formats::disk_count_max];
Local_Cache_Record Local_Cache[formats::disk_count_max];
volatile LONG Delay_Cnt;

static bool Set_Up[formats::disk_count_max];

bool Disk_Set_Up(ULONG Lun)
{
    return Set_Up[Lun];
}

void Set_Disk_Set_Up(ULONG Lun)
{
    Set_Up[Lun] = true;
}
