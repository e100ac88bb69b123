// SPDX-License-Identifier: MIT
#include "driver/cache/cache_layer.h"

#include "driver/block/pieces.h"
#include "driver/block/sector_flags.h"
#include "driver/cache/cache_stats.h"
#include "driver/kernel/bytes.h"
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
    LONG Present = Read_Present(Sec, Key, pBuffer, Left, Bytes);
    Cache_Stats_Add(pSR_RW, Present > 0 ? &CacheStats::Hits : &CacheStats::Misses);
    if (Present > 0)
        return Present;
    LONG Result = pSR_RW->Read(Ctx, Sector_Of(Key, Sec), pBuffer, -Present);
    if (Result > 0)
        Fill(Ctx, Sector_Of(Key, Sec), pBuffer, Result);
    return Result;
}

// The bytes read that are present from sector Sec on, or -m when the first m bytes are absent.
LONG QRNH_MEM_RW::Read_Present(ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes)
{
    Obj_Guard Guard(pObj_Mem->Obj_Lock);
    Record_Guard Rec(pObj_Mem);
    Find(Key, Rec);
    LONG Present = Rec ? SecFlag_Hit_Len(Rec->Sec_Bits, Sec, Bytes) : 0;
    if (Present == 0)
        return -Miss_Run(Rec, Sec, Key, Left, Bytes);
    Rec.Give();
    return pObj_Mem->Read(Rec.Node(), Sec, pBuffer, Present);
}

// How many of so many bytes from sector Sec on are absent; all, when the chunk has no block.
static LONG Absent_In(const Record_Guard& Rec, ULONG Sec, LONG Bytes)
{
    return Rec ? SecFlag_Miss_Len(Rec->Sec_Bits, Sec, Bytes) : Bytes;
}

// Length of the run of absent sectors from sector Sec of the chunk on, whose record Rec holds, if it has one,
// and gives back; at most Left, of which Bytes lie in this chunk.
LONG QRNH_MEM_RW::Miss_Run(Record_Guard& Rec, ULONG Sec, ULONG Key, LONG Left, LONG Bytes)
{
    LONG Absent = Absent_In(Rec, Sec, Bytes);
    Rec.Give();
    if (Absent != Bytes)
        return Absent;
    return Missing_Run(Key, Absent, Left, [this](ULONG Next_Key, LONG Length) {
        Record_Guard Next(pObj_Mem);
        Find(Next_Key, Next);
        return Absent_In(Next, 0, Length);
    });
}

LONG QRNH_MEM_RW::Can_Fill(const LRU_Node* pNode)
{
    return pNode->State == Block_Empty ? 0 : -1;
}

LONG QRNH_MEM_RW::Fill_Piece(ULONG_PTR, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG, LONG Bytes)
{
    Obj_Guard Guard(pObj_Mem->Obj_Lock);
    Record_Guard Rec(pObj_Mem);
    Find(Key, Rec);
    if (Rec && Rec.Node()->State == Block_Clean) {
        LONG Present = SecFlag_Hit_Len(Rec->Sec_Bits, Sec, Bytes);
        if (Present > 0)
            return Present;
    } else {
        Block_To_Fill(Rec, Key);
        if (!Rec)
            return Bytes;
    }
    Rec.Node()->State = Block_Clean;
    Rec.Give();
    Cache_Stats_Add(pSR_RW, &CacheStats::Fills);
    return Store(Rec.Node(), Sec, pBuffer, Bytes);
}

// Rec takes an empty block that holds the chunk, its own when it already has one; nothing when there is none
// to be had.
void QRNH_MEM_RW::Block_To_Fill(Record_Guard& Rec, ULONG Key)
{
    if (!Rec)
        Rec.Take(LRU_Get(pObj_Mem->pLRU_Cur));
    if (Can_Fill(Rec.Node()) < 0) {
        Rec.Give();
        return;
    }
    RtlZeroMemory(Rec->Sec_Bits, sizeof Rec->Sec_Bits);
    Install(Rec, Key);
}

// Copies into the block; its flags are set when the bytes are there.
LONG QRNH_MEM_RW::Store(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes)
{
    LONG Stored = pObj_Mem->Write(pNode, Sec, pBuffer, Bytes);
    if (Stored > 0) {
        Record_Guard Rec(pObj_Mem);
        Rec.Take(pNode);
        SecFlag_Set(Rec->Sec_Bits, Sec, Stored);
    }
    return Stored;
}

LONG QRNH_MEM_RW::Write_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG, LONG Bytes)
{
    {
        Obj_Guard Guard(pObj_Mem->Obj_Lock);
        Record_Guard Rec(pObj_Mem);
        Block_To_Write(Guard, Ctx, Key, Rec);
        if (Rec) {
            // What a clean block tells as present would from now on count as written.
            if (Rec.Node()->State < Block_Written)
                RtlZeroMemory(Rec->Sec_Bits, sizeof Rec->Sec_Bits);
            Rec.Node()->State = Block_Written;
            Rec.Give();
            return Store(Rec.Node(), Sec, pBuffer, Bytes);
        }
    }
    Cache_Stats_Add(pSR_RW, &CacheStats::Write_Throughs);
    return pSR_RW->Write(Ctx, Sector_Of(Key, Sec), pBuffer, Bytes);
}

// Rec takes the chunk's block, which becomes the next block to use again when the chunk has none; nothing
// when there is no way to cache the write. The lock is let go for as long as a block is written back.
void QRNH_MEM_RW::Block_To_Write(Obj_Guard& Guard, ULONG_PTR Ctx, ULONG Key, Record_Guard& Rec)
{
    for (;;) {
        Find(Key, Rec);
        if (Rec)
            return;
        // Even the smallest memory has more blocks than there are workers that could hold one.
        Rec.Take(LRU_Get(pObj_Mem->pLRU_Cur));
        LONG Clean =
            Rec.Node()->State < Block_Written ? Chunk_64K : SecFlag_Miss_Len(Rec->Sec_Bits, 0, Chunk_64K);
        if (Clean == Chunk_64K) {
            Install(Rec, Key);
            return;
        }
        // Another worker may have installed the chunk while its lock was free; so look again. A block whose
        // server is gone must not be the first that every write of every disk tries.
        if (Write_Back(Guard, Ctx, Rec, Clean) <= 0) {
            pObj_Mem->LRU_Touch(Rec.Node());
            return;
        }
    }
}

LONG QRNH_MEM_RW::Write_To(ULONG_PTR Ctx, QRNH_OBJ_RW* pObj, ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    return pObj->Write(Ctx, Sector, pBuffer, Bytes);
}

// Brings the run of dirty sectors at Offset of the block to the server of the disk that owns it; lets go of
// Obj_Lock meanwhile, and of the record. A write that reaches the block in that time makes it Block_Written
// again, and its flags stay.
LONG QRNH_MEM_RW::Write_Back(Obj_Guard& Guard, ULONG_PTR Ctx, Record_Guard& Rec, LONG Offset)
{
    LRU_Node* pNode = Rec.Node();
    QRNH_OBJ_RW* pOwner = Rec->pOwner;
    ULONG Sec = static_cast<ULONG>(Offset / Sector_Bytes);
    LONG Bytes = SecFlag_Hit_Len(Rec->Sec_Bits, Sec, Chunk_64K - Offset);
    Rec.Give();
    pNode->State = Block_Saving;
    ++pNode->InUse_Nums;  // keeps its ID, and the block from being used again
    Guard.Let_Go();

    LONG Place = Sectors_Per_Block * pObj_Mem->Block_Index(pNode) + static_cast<LONG>(Sec);
    UCHAR* pData = pObj_Mem->Oft_Buffer(Place);
    LONG Written = Write_To(Ctx, pOwner, pNode->ID * Chunk_Secs + Sec, pData, Bytes);
    pObj_Mem->Oft_Unuse(Place);
    if (Written > 0)
        Cache_Stats_Add(pOwner, &CacheStats::Write_Backs);

    Guard.Take_Again();
    --pNode->InUse_Nums;
    if (pNode->State == Block_Saving && Written > 0) {
        Rec.Take(pNode);
        SecFlag_Clr(Rec->Sec_Bits, Sec, Written);
        Rec.Give();
    }
    return Written;
}
