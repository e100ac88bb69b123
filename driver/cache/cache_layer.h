// SPDX-License-Identifier: MIT
// The RAM cache of one disk. Writes stay in the cache; a written block goes to the server only when a later
// write needs its room, and nothing is written back at shutdown. Reads take what is present and fetch every
// run of absent sectors in one request, which is then kept where there is a block that never held data or
// that holds other sectors of the same chunk.
//
// Called by the workers as a block object; Ctx is their worker block and goes on to the server objects as it
// is. The memory object's Obj_Lock guards the region table and pLast, and is held for each piece (what lies
// in one 64 KB chunk) but for its transfers with a server.
#pragma once

#include "driver/cache/record_guard.h"
#include "driver/kernel/locks.h"

class QRNH_MEM_RW : public QRNH_OBJ_RW {
public:
    LONG Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;
    LONG Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;
    virtual LONG Write_To(ULONG_PTR Ctx, QRNH_OBJ_RW* pObj, ULONG Sector, PVOID pBuffer, LONG Bytes);
    // 0 when the block may take data read from the server, otherwise -1.
    virtual LONG Can_Fill(const LRU_Node* pNode);
    // Keeps what was read from the server, as far as there is room for it.
    virtual LONG Fill(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes);
    // One piece: Bytes from sector Sec of the chunk named Key, of the Left bytes that the run still has.
    virtual LONG Fill_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes);
    virtual LONG Write_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes);
    virtual LONG Read_Piece(ULONG_PTR Ctx, ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes);
    virtual void Destory();

    // Once, before anything else: the disk's server object, its size in MB, rounded up, and the memory.
    // Returns 0, or -1 when there is no pool for the region table.
    LONG Create(QRNH_OBJ_RW* pSR, ULONG Disk_MB, QRNH_OBJ_MEM* pObj);

    QRNH_OBJ_MEM* Memory() const { return pObj_Mem; }

private:
    bool Region_Exists(ULONG Key) const;
    using Obj_Guard = Mutex_Guard<Busy_Mutex>;

    // The chunk's block becomes pLast, and Rec takes its record, or nothing when there is no such block.
    void Find(ULONG Key, Record_Guard& Rec);
    // The entry of a region if it is the region's own, mapped.
    Ent_8M* Region_Entry(Ent_Handle* pSlot) const;
    Ent_8M* New_Region_Entry(Ent_Handle* pSlot);
    void Unlist(LRU_Node* pNode, Ent_Handle Slot);
    // Lists Rec's block for a chunk; it becomes pLast. Rec gives the record back when the disk has no such
    // chunk.
    void Install(Record_Guard& Rec, ULONG Key);
    LONG Read_Present(ULONG Sec, ULONG Key, UCHAR* pBuffer, LONG Left, LONG Bytes);
    LONG Miss_Run(Record_Guard& Rec, ULONG Sec, ULONG Key, LONG Left, LONG Bytes);
    void Block_To_Fill(Record_Guard& Rec, ULONG Key);
    void Block_To_Write(Obj_Guard& Guard, ULONG_PTR Ctx, ULONG Key, Record_Guard& Rec);
    LONG Write_Back(Obj_Guard& Guard, ULONG_PTR Ctx, Record_Guard& Rec, LONG Offset);
    LONG Store(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes);

    ULONG Key_Tag;  // LUN of the chunk keys: always 0, a region table holds one disk only
    QRNH_OBJ_MEM* pObj_Mem;
    QRNH_OBJ_RW* pSR_RW;  // this disk's server object, and the owner in its blocks' records
    ULONG Nums_8M;
    Ent_Handle* p8M_TBL;  // per 8 MB region; a handle counts only while its entry names this slot
    LRU_Node* pLast;      // the block last found or installed
};
