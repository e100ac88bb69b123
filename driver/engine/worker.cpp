// SPDX-License-Identifier: MIT
#include "driver/engine/worker.h"

#include "driver/engine/chunk.h"
#include "driver/engine/local_cache.h"
#include "driver/engine/status_poll.h"
#include "driver/image/image_sync.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/pool.h"
#include "driver/net/packet.h"
#include "driver/net/receive.h"
#include "driver/request/completion.h"
#include "driver/request/holds.h"
#include "driver/request/queues.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"

constexpr KPRIORITY Worker_Priority = 31;

static void Start_Thread(PKSTART_ROUTINE Routine, PVOID Context)
{
    HANDLE Thread;
    if (NT_SUCCESS(
            PsCreateSystemThread(&Thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Routine, Context)))
        ZwClose(Thread);
}

static RW_Entry* Create_Entry(ULONG Index)
{
    auto pEntry = static_cast<RW_Entry*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(RW_Entry), Tag_Memory));
    if (!pEntry)
        return nullptr;
    RtlZeroMemory(pEntry, offsetof(RW_Entry, Bounce));
    KeInitializeSpinLock(&pEntry->Ack_Lock);
    KeInitializeEvent(&pEntry->Ack_Event, SynchronizationEvent, FALSE);
    pEntry->Hdr.Worker_Byte = static_cast<UCHAR>(Index);
    return pEntry;
}

void Workers_Start(ULONG Count)
{
    Queues_Init();
    for (ULONG Index = 0; Index < Count; ++Index) {
        RW_Entry* pEntry = Create_Entry(Index);
        if (!pEntry) {
            DbgPrint("\nQRN SCSI: pRW_List Init Error!");
            return;
        }
        InsertTailList(&pRW_List, &pEntry->Link);
        pRW_Tbl[Index] = pEntry;
        Start_Thread(QRN_RW_Thread, nullptr);
        if (Index == 0)
            Start_Thread(QRN_Recv_Thread, reinterpret_cast<PVOID>(Answer_Poll));
    }
}

// Bytes per chunk of a record whose packets are set up in the entry.
static ULONG Chunk_Size(const RW_Entry* pEntry, const RW_Req* pReq)
{
    if (Boot_Param.Boot_Mode.get() != formats::boot_mode_local_image)
        return pEntry->Setup.Split_Size;
    return pReq->Bytes < Bounce_Bytes ? pReq->Bytes : Bounce_Bytes;
}

// Settles how a record is cut and sent, and makes its chunks available to all workers.
static void Admit(RW_Entry* pEntry, RW_Req* pReq)
{
    if (pReq->Bytes == 0 && pReq->Sector == 0) {
        QRN_RW_HDD_Stop();
        Req_Complete(pReq, pReq->Lun);
        return;
    }
    if (!Local_Cache[pReq->Lun].Set_Up) {
        // Only an empty transfer passes the range check of a disk that was absent at start-up.
        Req_Complete(pReq, pReq->Lun);
        return;
    }
    Pkt_Init(pEntry, pReq->Lun, pReq->Write);
    ULONG Round = Parking_Round();
    if (Local_Init(pEntry, pReq->pSrb ? pReq->pDone : nullptr) == Cache_Unknown) {
        Park_Record(pReq, Round);
        return;
    }
    ULONG Split_Size = Chunk_Size(pEntry, pReq);
    pEntry->Setup.Split_Size = Split_Size;
    pReq->Setup.Pkt = pEntry->Setup;
    RtlCopyMemory(pReq->Setup.Hdr, &pEntry->Hdr, sizeof pReq->Setup.Hdr);
    pReq->Setup.Again = 0;
    pReq->Setup.Past_Images = 0;
    pReq->Setup.Spent = 0;
    pReq->Chunk_Nums = Split_Size ? static_cast<LONG>((pReq->Bytes + Split_Size - 1) / Split_Size) : 0;
    pReq->Chunk_Next = 0;
    pReq->pSlot = nullptr;
    Spin_Guard Guard(Active_Lock);
    InsertTailList(&Active_List, &pReq->Link);
}

[[noreturn]] static void Work(RW_Entry* pEntry)
{
    for (;;) {
        Chunk Picked;
        LONG Last = Last_Turn();
        if (Chunk_Pick(pEntry, Picked, Last))
            Chunk_Run(pEntry, Picked);
        else if (RW_Req* pReq = Take_Pending())
            Admit(pEntry, pReq);
        else if (Last >= 0 && Chunk_Pick(pEntry, Picked, -1))
            Chunk_Run(pEntry, Picked);
        else
            KeWaitForSingleObject(&RW_Sem, Executive, KernelMode, FALSE, nullptr);
    }
}

VOID NTAPI QRN_RW_Thread(PVOID)
{
    LONG Index = InterlockedExchangeAdd(&RW_Count, 1);
    DbgPrint("\nQRN SCSI: QRN_RW_Thread %d Created", Index);
    KeWaitForSingleObject(&Start_Event, Executive, KernelMode, FALSE, nullptr);
    KeSetPriorityThread(KeGetCurrentThread(), Worker_Priority);
    Work(pRW_Tbl[Index]);
}
