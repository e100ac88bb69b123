// SPDX-License-Identifier: MIT
#include "driver/request/holds.h"

#include "driver/kernel/locks.h"
#include "driver/request/queues.h"
#include "driver/state/disk_table.h"

static volatile LONG Held[formats::disk_count_max];
static volatile LONG Silent[formats::disk_count_max];
static volatile LONG Last_Turn_Lun = -1;

static bool Shared()
{
    ULONG Disks = 0;
    for (ULONG Lun = 0; Lun < formats::disk_count_max; ++Lun)
        Disks += Local_Cache[Lun].Set_Up;
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

// Another silent disk has requests, and no worker to find out whether it is silent still.
static bool Another_Starves(ULONG Lun)
{
    for (ULONG Other = 0; Other < formats::disk_count_max; ++Other)
        if (Other != Lun && Silent[Other] && Held[Other] == 0 && Lun_Stats[Other].Queued > 0)
            return true;
    return false;
}

bool May_Hold(ULONG Lun)
{
    if (!Silent[Lun] || !Shared())
        return true;
    return Held_By_Silent() < RW_Count - 1 && (Held[Lun] == 0 || !Another_Starves(Lun));
}

bool Try_Hold(ULONG Lun)
{
    Spin_Guard Guard(Active_Lock);
    if (!May_Hold(Lun))
        return false;
    Hold_Begin(Lun);
    return true;
}

bool Must_Let_Go(ULONG Lun)
{
    LONG Workers = Held_By_Silent();
    return Shared() && (Workers >= RW_Count || (Workers == RW_Count - 1 && Another_Starves(Lun)));
}

void Disk_Is_Silent(ULONG Lun)
{
    Silent[Lun] = 1;
}

LONG Last_Turn()
{
    return Last_Turn_Lun;
}

void Turn_Ends(ULONG Lun)
{
    Last_Turn_Lun = static_cast<LONG>(Lun);
}

void Disk_Answers(ULONG Lun)
{
    if (!Silent[Lun] || !InterlockedExchange(&Silent[Lun], 0))
        return;
    InterlockedCompareExchange(&Last_Turn_Lun, -1, static_cast<LONG>(Lun));
    Let_Others_Try();
}
