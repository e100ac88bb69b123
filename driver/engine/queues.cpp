// SPDX-License-Identifier: MIT
#include "driver/engine/queues.h"

#include "driver/miniport/request.h"

LIST_ENTRY pRW_List;
RW_Entry* pRW_Tbl[RW_Threads_Max];
volatile LONG RW_Count;

LIST_ENTRY Pending_Queue;
KSPIN_LOCK Pending_Lock;
LIST_ENTRY Active_List;
KSPIN_LOCK Active_Lock;
KSEMAPHORE RW_Sem;

constexpr LONG Sem_Limit = 0x7FFFFFFF;

void Queues_Init()
{
    KeInitializeSemaphore(&RW_Sem, 0, Sem_Limit);
    InitializeListHead(&Pending_Queue);
    KeInitializeSpinLock(&Pending_Lock);
    InitializeListHead(&Active_List);
    KeInitializeSpinLock(&Active_Lock);
    InitializeListHead(&pRW_List);
    RW_Count = 0;
}

void Req_Queue(RW_Req* pReq)
{
    ExInterlockedInsertTailList(&Pending_Queue, &pReq->Link, &Pending_Lock);
    KeReleaseSemaphore(&RW_Sem, IO_NO_INCREMENT, 1, FALSE);
}

RW_Req* Take_Pending()
{
    PLIST_ENTRY pLink = ExInterlockedRemoveHeadList(&Pending_Queue, &Pending_Lock);
    return pLink ? CONTAINING_RECORD(pLink, RW_Req, Link) : nullptr;
}
