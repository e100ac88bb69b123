// SPDX-License-Identifier: MIT
#include "driver/request/queues.h"

#include "driver/kernel/locks.h"
#include "driver/request/request.h"

LIST_ENTRY pRW_List;
RW_Entry* pRW_Tbl[RW_Threads_Max];
volatile LONG RW_Count;

LIST_ENTRY Pending_Queue;
KSPIN_LOCK Pending_Lock;
LIST_ENTRY Active_List;
KSPIN_LOCK Active_Lock;
KSEMAPHORE RW_Sem;

static KSPIN_LOCK Park_Lock;
static LIST_ENTRY Parked_List;  // Park_Lock
static ULONG Park_Rounds;       // Park_Lock: how often what was parked has been queued again

constexpr LONG Sem_Limit = 0x7FFFFFFF;

void Queues_Init()
{
    KeInitializeSemaphore(&RW_Sem, 0, Sem_Limit);
    InitializeListHead(&Pending_Queue);
    KeInitializeSpinLock(&Pending_Lock);
    InitializeListHead(&Parked_List);
    KeInitializeSpinLock(&Park_Lock);
    InitializeListHead(&Active_List);
    KeInitializeSpinLock(&Active_Lock);
    InitializeListHead(&pRW_List);
    RW_Count = 0;
}

void Wake_Worker()
{
    if (KeReadStateSemaphore(&RW_Sem) < RW_Count)
        KeReleaseSemaphore(&RW_Sem, IO_NO_INCREMENT, 1, FALSE);
}

void Req_Queue(RW_Req* pReq)
{
    ExInterlockedInsertTailList(&Pending_Queue, &pReq->Link, &Pending_Lock);
    Wake_Worker();
}

RW_Req* Take_Pending()
{
    PLIST_ENTRY pLink = ExInterlockedRemoveHeadList(&Pending_Queue, &Pending_Lock);
    return pLink ? CONTAINING_RECORD(pLink, RW_Req, Link) : nullptr;
}

ULONG Parking_Round()
{
    Spin_Guard Guard(Park_Lock);
    return Park_Rounds;
}

void Park_Record(RW_Req* pReq, ULONG Round)
{
    {
        Spin_Guard Guard(Park_Lock);
        if (Round == Park_Rounds) {
            InsertTailList(&Parked_List, &pReq->Link);
            return;
        }
    }
    Req_Queue(pReq);
}

// All of them at once: one that is parked again while the others are queued waits for the next time.
static void Take_Parked(LIST_ENTRY& Taken)
{
    InitializeListHead(&Taken);
    Spin_Guard Guard(Park_Lock);
    ++Park_Rounds;
    while (!IsListEmpty(&Parked_List))
        InsertTailList(&Taken, RemoveHeadList(&Parked_List));
}

void Unpark_Records()
{
    LIST_ENTRY Taken;
    Take_Parked(Taken);
    while (!IsListEmpty(&Taken))
        Req_Queue(CONTAINING_RECORD(RemoveHeadList(&Taken), RW_Req, Link));
}
