// SPDX-License-Identifier: MIT
#include "driver/cache/cache_layer.h"

#include "driver/block/pieces.h"
#include "driver/block/sector_flags.h"
#include "driver/cache/cache_stats.h"
#include "driver/kernel/bytes.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/pool.h"

using formats::CacheStats;

static ULONGLONG Sector_Of(ULONG Key, ULONG Sec)
{
    return ULONGLONG{Key} * Chunk_Secs + Sec;
}

LONG QRNH_MEM_RW::Create(QRNH_OBJ_RW* pSR, ULONG Disk_MB, QRNH_OBJ_MEM* pObj)
{
    Key_Tag = 0;
    pObj_Mem = pObj;
    pSR_RW = pSR;
    Nums_8M = (Disk_MB >> 3) + 1;  // the last engine sector is the one behind the last LBA
    ULONG Table_Bytes = sizeof(Ent_Handle) * Nums_8M;
    p8M_TBL = static_cast<Ent_Handle*>(ExAllocatePoolWithTag(NonPagedPool, Table_Bytes, Tag_Memory));
    DbgPrint("\nQRNH_MEM_RW::Create %p %p, p8M_TBL=%p, %dm Nums_8M=%X(%dk)", this, pSR, p8M_TBL, Disk_MB,
             Nums_8M, Table_Bytes >> 10);
    if (!p8M_TBL)
        return -1;
    RtlZeroMemory(p8M_TBL, Table_Bytes);
    InterlockedIncrement(&pObj->Users);
    pLast = nullptr;
    return 0;
}

void QRNH_MEM_RW::Destory()
{
    LONG Users = InterlockedDecrement(&pObj_Mem->Users);
    DbgPrint("\nQRNH_MEM_RW::Destory: %p %d", this, Users);
    ExFreePoolWithTag(p8M_TBL, Tag_Memory);
}

LONG QRNH_MEM_RW::Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Run_In_Pieces(Key_Tag, Sector, pBuffer, Bytes,
                         [=, this](auto... Piece) { return Write_Piece(Ctx, Piece...); });
}

LONG QRNH_MEM_RW::Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Run_In_Pieces(Key_Tag, Sector, pBuffer, Bytes,
                         [=, this](auto... Piece) { return Read_Piece(Ctx, Piece...); });
}

LONG QRNH_MEM_RW::Fill(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Run_In_Pieces(Key_Tag, Sector, pBuffer, Bytes,
                         [=, this](auto... Piece) { return Fill_Piece(Ctx, Piece...); });
}

LONG QRNH_MEM_RW::Read_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes)
{
    Mutex_Take(pObj_Mem->Obj_Lock);
    const Rec_64K* pRec = Find(Key);
    LONG Present = pRec ? SecFlag_Hit_Len(pRec->Sec_Bits, Sec, Bytes) : 0;
    if (Present > 0) {
        pObj_Mem->Rec_Put(pLast);
        Present = pObj_Mem->Read(pLast, Sec, pBuffer, Present);
        Mutex_Give(pObj_Mem->Obj_Lock);
        Cache_Stats_Add(pSR_RW, &CacheStats::Hits);
        return Present;
    }
    LONG Absent = Miss_Run(pRec, Sec, Key, Left, Bytes);
    Mutex_Give(pObj_Mem->Obj_Lock);
    Cache_Stats_Add(pSR_RW, &CacheStats::Misses);
    LONG Result = pSR_RW->Read(Ctx, Sector_Of(Key, Sec), pBuffer, Absent);
    if (Result > 0)
        Fill(Ctx, Sector_Of(Key, Sec), pBuffer, Result);
    return Result;
}

// How many of so many bytes from sector Sec on are absent. pRec is the mapped record of pLast, and is given
// back; null when the chunk has no block.
LONG QRNH_MEM_RW::Absent_In(const Rec_64K* pRec, ULONG Sec, LONG Bytes)
{
    if (!pRec)
        return Bytes;
    LONG Absent = SecFlag_Miss_Len(pRec->Sec_Bits, Sec, Bytes);
    pObj_Mem->Rec_Put(pLast);
    return Absent;
}

// Length of the run of absent sectors from sector Sec of the chunk on, whose record is pRec if it has one; at
// most Left, of which Bytes lie in this chunk.
LONG QRNH_MEM_RW::Miss_Run(const Rec_64K* pRec, ULONG Sec, ULONG Key, LONG Left, LONG Bytes)
{
    LONG Absent = Absent_In(pRec, Sec, Bytes);
    if (Absent != Bytes)
        return Absent;
    return Missing_Run(Key, Absent, Left,
                       [this](ULONG Next_Key, LONG Length) { return Absent_In(Find(Next_Key), 0, Length); });
}

LONG QRNH_MEM_RW::Can_Fill(const LRU_Node* pNode)
{
    return pNode->State == Block_Empty ? 0 : -1;
}

LONG QRNH_MEM_RW::Fill_Piece(ULONG_PTR, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG, LONG Bytes)
{
    Mutex_Guard Guard(pObj_Mem->Obj_Lock);
    Rec_64K* pRec = Find(Key);
    if (pRec && pLast->State == Block_Clean) {
        LONG Present = SecFlag_Hit_Len(pRec->Sec_Bits, Sec, Bytes);
        if (Present > 0) {
            pObj_Mem->Rec_Put(pLast);
            return Present;
        }
    } else {
        pRec = Block_To_Fill(pRec, Key);
        if (!pRec)
            return Bytes;
    }
    LRU_Node* pNode = pLast;
    pNode->State = Block_Clean;
    pObj_Mem->Rec_Put(pNode);
    Cache_Stats_Add(pSR_RW, &CacheStats::Fills);
    return Store(pNode, Sec, pBuffer, Bytes);
}

// The mapped record of an empty block, pLast from now on, that holds the chunk; null when there is none to
// be had. pRec is the record of pLast when the chunk already has a block.
Rec_64K* QRNH_MEM_RW::Block_To_Fill(Rec_64K* pRec, ULONG Key)
{
    LRU_Node* pNode = pRec ? pLast : LRU_Get(pObj_Mem->pLRU_Cur);
    if (!pRec)
        pRec = pObj_Mem->Rec_Get(pNode);
    if (Can_Fill(pNode) < 0) {
        pObj_Mem->Rec_Put(pNode);
        return nullptr;
    }
    RtlZeroMemory(pRec->Sec_Bits, sizeof pRec->Sec_Bits);
    return Install(pRec, pNode, Key);
}

// Copies into the block; its flags are set when the bytes are there.
LONG QRNH_MEM_RW::Store(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes)
{
    LONG Stored = pObj_Mem->Write(pNode, Sec, pBuffer, Bytes);
    if (Stored > 0) {
        SecFlag_Set(pObj_Mem->Rec_Get(pNode)->Sec_Bits, Sec, Stored);
        pObj_Mem->Rec_Put(pNode);
    }
    return Stored;
}

LONG QRNH_MEM_RW::Write_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG, LONG Bytes)
{
    {
        Mutex_Guard Guard(pObj_Mem->Obj_Lock);
        LRU_Node* pNode;
        if (Rec_64K* pRec = Block_To_Write(Ctx, Key, pNode)) {
            // What a clean block tells as present would from now on count as written.
            if (pNode->State < Block_Written)
                RtlZeroMemory(pRec->Sec_Bits, sizeof pRec->Sec_Bits);
            pNode->State = Block_Written;
            pObj_Mem->Rec_Put(pNode);
            return Store(pNode, Sec, pBuffer, Bytes);
        }
    }
    Cache_Stats_Add(pSR_RW, &CacheStats::Write_Throughs);
    return pSR_RW->Write(Ctx, Sector_Of(Key, Sec), pBuffer, Bytes);
}

// The mapped record of the chunk's block, which becomes the next block to use again when the chunk has none.
// Null when there is no way to cache the write.
Rec_64K* QRNH_MEM_RW::Block_To_Write(ULONG_PTR Ctx, ULONG Key, LRU_Node*& pNode)
{
    for (;;) {
        if (Rec_64K* pRec = Find(Key)) {
            pNode = pLast;
            return pRec;
        }
        // Even the smallest memory has more blocks than there are workers that could hold one.
        pNode = LRU_Get(pObj_Mem->pLRU_Cur);
        Rec_64K* pRec = pObj_Mem->Rec_Get(pNode);
        if (pNode->State < Block_Written)
            return Install(pRec, pNode, Key);
        LONG Clean = SecFlag_Miss_Len(pRec->Sec_Bits, 0, Chunk_64K);
        if (Clean == Chunk_64K)
            return Install(pRec, pNode, Key);
        // Another worker may have installed the chunk while its lock was free; so look again. A block whose
        // server is gone must not be the first that every write of every disk tries.
        if (Write_Back(Ctx, pRec, pNode, Clean) <= 0) {
            pObj_Mem->LRU_Touch(pNode);
            return nullptr;
        }
    }
}

LONG QRNH_MEM_RW::Write_To(ULONG_PTR Ctx, QRNH_OBJ_RW* pObj, ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    return pObj->Write(Ctx, Sector, pBuffer, Bytes);
}

// Brings the run of dirty sectors at Offset of the block to the server of the disk that owns it; lets go of
// Obj_Lock meanwhile. A write that reaches the block in that time makes it Block_Written again, and its
// flags stay.
LONG QRNH_MEM_RW::Write_Back(ULONG_PTR Ctx, const Rec_64K* pRec, LRU_Node* pNode, LONG Offset)
{
    QRNH_OBJ_RW* pOwner = pRec->pOwner;
    ULONG Sec = static_cast<ULONG>(Offset / Sector_Bytes);
    LONG Bytes = SecFlag_Hit_Len(pRec->Sec_Bits, Sec, Chunk_64K - Offset);
    pObj_Mem->Rec_Put(pNode);
    pNode->State = Block_Saving;
    ++pNode->InUse_Nums;  // keeps its ID, and the block from being used again
    Mutex_Give(pObj_Mem->Obj_Lock);

    LONG Place = Sectors_Per_Block * pObj_Mem->Block_Index(pNode) + static_cast<LONG>(Sec);
    UCHAR* pData = pObj_Mem->Oft_Buffer(Place);
    LONG Written = Write_To(Ctx, pOwner, pNode->ID * Chunk_Secs + Sec, pData, Bytes);
    pObj_Mem->Oft_Unuse(Place);
    if (Written > 0)
        Cache_Stats_Add(pOwner, &CacheStats::Write_Backs);

    Mutex_Take(pObj_Mem->Obj_Lock);
    --pNode->InUse_Nums;
    if (pNode->State == Block_Saving && Written > 0) {
        SecFlag_Clr(pObj_Mem->Rec_Get(pNode)->Sec_Bits, Sec, Written);
        pObj_Mem->Rec_Put(pNode);
    }
    return Written;
}
