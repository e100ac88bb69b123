// SPDX-License-Identifier: MIT
#include "driver/engine/holds.h"

#include "driver/engine/queues.h"
#include "driver/startup/disk_table.h"

static volatile LONG Held[formats::disk_count_max];
static volatile LONG Silent[formats::disk_count_max];

static bool Shared()
{
    ULONG Disks = 0;
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun)
        Disks += Disk_Set_Up(Lun);
    return Disks > 1 && RW_Count > 1;
}

// Chunks and records that were held back may go on.
static void Let_Others_Try()
{
    Unpark_Records();
    Wake_Worker();
}

static LONG Held_By_Silent()
{
    LONG Workers = 0;
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun)
        if (Silent[Lun])
            Workers += Held[Lun];
    return Workers;
}

void Hold_Begin(ULONG Lun)
{
    InterlockedIncrement(&Held[Lun]);
}

void Hold_End(ULONG Lun)
{
    InterlockedDecrement(&Held[Lun]);
    if (Silent[Lun])
        Let_Others_Try();
}

bool May_Hold(ULONG Lun)
{
    return !Silent[Lun] || Held_By_Silent() < RW_Count - 1 || !Shared();
}

bool Silent_Hold_All()
{
    return Held_By_Silent() >= RW_Count && Shared();
}

void Disk_Is_Silent(ULONG Lun)
{
    Silent[Lun] = 1;
}

void Disk_Answers(ULONG Lun)
{
    if (Silent[Lun] && InterlockedExchange(&Silent[Lun], 0))
        Let_Others_Try();
}
