// SPDX-License-Identifier: MIT
#include "driver/engine/slots.h"

#include "driver/kernel/locks.h"
#include "driver/request/queues.h"
#include "driver/request/request.h"
#include "driver/state/local_boot.h"

// Active_Lock: chunks with a slot on a workstation with local images, whose requests must not wait for the
// network behind those that do.
static LONG Slots_Held;

bool Needs_Slot(const RW_Req* pReq)
{
    if (!pReq->pSrb)
        return (pReq->Status & Req_Brief) == 0;
    return !Images_Take_Part() || pReq->Setup.Past_Images != 0;
}

bool Slot_Free(ULONG Lun)
{
    return Lun_Stats[Lun].Free_Slots > 0 &&
           (!Images_Take_Part() || RW_Count < 2 || Slots_Held < RW_Count - 1);
}

void Take_Slot(RW_Entry* pEntry, ULONG Lun)
{
    InterlockedDecrement(&Lun_Stats[Lun].Free_Slots);
    ++Slots_Held;
    pEntry->Has_Slot = true;
}

void Give_Slot(RW_Entry* pEntry)
{
    if (!pEntry->Has_Slot)
        return;
    Spin_Guard Guard(Active_Lock);
    InterlockedIncrement(&Lun_Stats[pEntry->Lun].Free_Slots);
    --Slots_Held;
    pEntry->Has_Slot = false;
}

bool Slot_Past_Images(RW_Entry* pEntry, RW_Req* pReq)
{
    if (pEntry->Has_Slot)
        return true;
    Spin_Guard Guard(Active_Lock);
    pReq->Setup.Past_Images = 1;
    if (!Slot_Free(pEntry->Lun)) {
        pEntry->Hold = Hold_Kind::Let_Go;
        return false;
    }
    Take_Slot(pEntry, pEntry->Lun);
    return true;
}
