// SPDX-License-Identifier: MIT
#include "driver/engine/chunk.h"

#include "driver/engine/route.h"
#include "driver/engine/slots.h"
#include "driver/kernel/bytes.h"
#include "driver/kernel/locks.h"
#include "driver/net/exchange.h"
#include "driver/net/packet.h"
#include "driver/request/channel.h"
#include "driver/request/completion.h"
#include "driver/request/holds.h"
#include "driver/request/queues.h"
#include "driver/request/request.h"

// Header bytes that a record brings to every worker that runs a chunk of it: all but the worker's own
// Worker_Byte and the chunk's Pkt_Index.
constexpr ULONG Hdr_Tagged_Bytes = offsetof(formats::WireHeader, Worker_Byte);
static_assert(Hdr_Tagged_Bytes == 10);

static void Restore_Setup(RW_Entry* pEntry, const RW_Req* pReq)
{
    auto pHdr = reinterpret_cast<const formats::WireHeader*>(pReq->Setup.Hdr);
    pEntry->Lun = pReq->Lun;
    pEntry->Setup = pReq->Setup.Pkt;
    RtlCopyMemory(&pEntry->Hdr, pHdr, Hdr_Tagged_Bytes);
    RtlCopyMemory(pEntry->Hdr.Disk_Parm, pHdr->Disk_Parm, sizeof pHdr->Disk_Parm);
}

// The first record that can go on. An internal record waits until nothing stands behind it.
static RW_Req* First_Ready(LONG Not_Lun)
{
    for (PLIST_ENTRY pLink = Active_List.Flink; pLink != &Active_List; pLink = pLink->Flink) {
        RW_Req* pReq = CONTAINING_RECORD(pLink, RW_Req, Link);
        if ((!Needs_Slot(pReq) || Slot_Free(pReq->Lun)) && (pReq->pSrb || pLink->Flink == &Active_List) &&
            static_cast<LONG>(pReq->Lun) != Not_Lun && May_Hold(pReq->Lun))
            return pReq;
    }
    return nullptr;
}

static RW_Entry* Take_Slot_Block()
{
    return IsListEmpty(&pRW_List) ? nullptr : CONTAINING_RECORD(RemoveHeadList(&pRW_List), RW_Entry, Link);
}

static void Give_Slot_Block_Back(RW_Entry* pBlock)
{
    if (!pBlock)
        return;
    Spin_Guard Guard(Active_Lock);
    InsertTailList(&pRW_List, &pBlock->Link);
}

// Tags the chunk: once for all chunks of a read, each write chunk for itself. When every slot block is
// lent out the worker's own index serves as the slot number, and nothing has to be given back.
static void Tag_Chunk(RW_Entry* pEntry, RW_Req* pReq, bool First, LONG Bytes)
{
    if (pReq->Write) {
        pEntry->pWr_Slot = Take_Slot_Block();
        if (!pEntry->Setup.pMC_Write)
            Pkt_Tag(pEntry, Write_Slot_Index(pEntry), Bytes);
    } else if (First) {
        pReq->pSlot = Take_Slot_Block();
        Pkt_Tag(pEntry, (pReq->pSlot ? pReq->pSlot : pEntry)->Index(), static_cast<LONG>(pReq->Bytes));
        RtlCopyMemory(pReq->Setup.Hdr, &pEntry->Hdr, Hdr_Tagged_Bytes);
    }
}

// Whether chunks of the record are left to be picked. An empty record is picked once, for its end.
static bool Has_Chunks(const RW_Req* pReq)
{
    return pReq->Chunk_Next * pReq->Setup.Pkt.Split_Size < pReq->Bytes || pReq->Setup.Again != 0;
}

// The number of the next chunk: of those that are to be run again, if there are any.
static ULONG Take_Chunk(RW_Req* pReq)
{
    ULONG& Again = pReq->Setup.Again;
    if (Again == 0)
        return pReq->Chunk_Next++;
    auto Index = static_cast<ULONG>(__builtin_ctz(Again));
    Again &= Again - 1;
    return Index;
}

static Chunk Pick_Next(RW_Entry* pEntry, RW_Req* pReq)
{
    bool First = pReq->Chunk_Next == 0;
    ULONG Index = Take_Chunk(pReq);
    auto Size = static_cast<LONG>(pReq->Setup.Pkt.Split_Size);
    LONG Offset = Size * static_cast<LONG>(Index);
    Chunk Picked{pReq, Index, Smaller(Size, static_cast<LONG>(pReq->Bytes) - Offset), Left::Nothing};
    if (Has_Chunks(pReq))
        Picked.Rest = Left::Chunks;
    else
        RemoveEntryList(&pReq->Link);
    Hold_Begin(pReq->Lun);
    if (Needs_Slot(pReq))
        Take_Slot(pEntry, pReq->Lun);
    if (Picked.Rest == Left::Chunks && Lun_Stats[pReq->Lun].Free_Slots <= 0)
        Picked.Rest = Left::Chunks_Without_Slot;

    Restore_Setup(pEntry, pReq);
    pEntry->Spent = pReq->Setup.Spent;
    pEntry->pData = pReq->pBuffer + Offset;
    pEntry->Sector = pReq->Sector + static_cast<ULONG>(Offset >> 9);
    pEntry->Hdr.Pkt_Index = static_cast<UCHAR>(Index);  // a chunk with a tag of its own restarts at 0
    Tag_Chunk(pEntry, pReq, First, Picked.Bytes);
    return Picked;
}

bool Chunk_Pick(RW_Entry* pEntry, Chunk& Picked, LONG Not_Lun)
{
    Spin_Guard Guard(Active_Lock);
    RW_Req* pReq = First_Ready(Not_Lun);
    if (pReq)
        Picked = Pick_Next(pEntry, pReq);
    return pReq != nullptr;
}

// An internal record goes straight from its own buffer to the network.
static void Run_Internal(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes)
{
    LONG Status = pReq->Status;
    if (Status == Req_Failed)
        return;
    auto Operation = static_cast<USHORT>(Status);
    pEntry->Brief = (Status & Req_Brief) != 0;
    pEntry->Hdr.Sub_Code = static_cast<UCHAR>(Operation);
    pEntry->Hdr.Kind = static_cast<UCHAR>(Operation >> 8);
    LONG Done = Net_Send_Wait(pEntry, Bytes);
    pEntry->Brief = false;
    if (Done <= 0 && pEntry->Hold != Hold_Kind::Let_Go)
        pReq->Status = Req_Failed;
}

// Lets others go on while this worker runs its chunk.
static void Wake_Others(const RW_Entry* pEntry, const Chunk& Picked)
{
    if (Picked.Rest == Left::Nothing)
        Chan_Send(static_cast<Hw_Ext*>(Picked.pReq->pDone), nullptr, pEntry->Lun);
    else if (Picked.Rest == Left::Chunks)
        Wake_Worker();
}

static void Run_Srb(RW_Entry* pEntry, const Chunk& Picked)
{
    RW_Req* pReq = Picked.pReq;
    Wake_Others(pEntry, Picked);
    UCHAR* pCaller = pEntry->pData;  // an empty request may come without a buffer
    if (pReq->Write && Picked.Bytes > 0)
        RtlCopyMemory(pEntry->Bounce, pCaller, static_cast<SIZE_T>(Picked.Bytes));
    pEntry->pData = pEntry->Bounce;
    for (LONG Bytes = Picked.Bytes; Bytes > 0 && pEntry->Hold != Hold_Kind::Let_Go;) {
        LONG Done = Route_Piece(pEntry, pReq, Bytes);
        Bytes -= Done;
        pEntry->pData += Done;
        pEntry->Sector += static_cast<ULONG>(Done >> 9);
    }
    auto Processed = static_cast<SIZE_T>(pEntry->pData - pEntry->Bounce);
    pEntry->pData = pCaller;
    if (!pReq->Write && Processed > 0 && pEntry->Hold != Hold_Kind::Let_Go)
        RtlCopyMemory(pCaller, pEntry->Bounce, Processed);
    Give_Slot_Block_Back(pEntry->pWr_Slot);
    pEntry->pWr_Slot = nullptr;
}

static LONG Magnitude(LONG Value)
{
    return Value < 0 ? -Value : Value;
}

// The chunk goes back to its record; when its disk's turn is over, the record goes behind the others. The
// sectors of a write that is tagged afresh then count once.
static void Run_Again_Later(RW_Entry* pEntry, const Chunk& Picked)
{
    RW_Req* pReq = Picked.pReq;
    if (pReq->Write && !pEntry->Setup.pMC_Write)
        InterlockedExchangeAdd(&pEntry->Setup.pCounters->Secs, -(Picked.Bytes >> 9));
    Give_Slot(pEntry);
    {
        Spin_Guard Guard(Active_Lock);
        bool Listed = Has_Chunks(pReq);
        bool Turn_Over = static_cast<LONG>(pReq->Lun) == Last_Turn();
        if (Listed && Turn_Over)
            RemoveEntryList(&pReq->Link);
        if (!Listed || Turn_Over)
            InsertTailList(&Active_List, &pReq->Link);
        if (Magnitude(pReq->Setup.Spent) < Magnitude(pEntry->Spent))
            pReq->Setup.Spent = static_cast<SHORT>(pEntry->Spent);
        pReq->Setup.Again |= 1u << Picked.Index;
    }
    Hold_End(pEntry->Lun);
}

// After the last chunk the record belongs to its owner again.
static void Finish_Chunk(RW_Entry* pEntry, RW_Req* pReq)
{
    Give_Slot(pEntry);
    Hold_End(pEntry->Lun);
    if (InterlockedDecrement(&pReq->Chunk_Nums) > 0)
        return;
    Give_Slot_Block_Back(pReq->pSlot);
    Req_Complete(pReq, pEntry->Lun);
}

void Chunk_Run(RW_Entry* pEntry, const Chunk& Picked)
{
    pEntry->Hold = Picked.Index < Again_Max ? Hold_Kind::Loose : Hold_Kind::Firm;
    pEntry->pNotify = Picked.pReq->pSrb ? Picked.pReq->pDone : pNotice_Adapter;
    if (Picked.pReq->pSrb)
        Run_Srb(pEntry, Picked);
    else
        Run_Internal(pEntry, Picked.pReq, Picked.Bytes);
    if (pEntry->Hold == Hold_Kind::Let_Go)
        Run_Again_Later(pEntry, Picked);
    else
        Finish_Chunk(pEntry, Picked.pReq);
}
