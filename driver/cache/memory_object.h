// SPDX-License-Identifier: MIT
// A store of 64 KB data blocks in a page pool, with what is needed to find them: a ring of the blocks in
// two parts, cold (about 80 %) and hot, a record per block, and entries that list the blocks of an 8 MB
// region of a disk. Records and entries lie in the pool's own pages; only the ring is in non-paged pool.
// Shared by the cache layers of all disks whose cache has the same size.
//
// Worker threads, PASSIVE_LEVEL. Obj_Lock guards the ring, its markers, p8M_List, all records, entries and
// blocks, and the region tables of the attached layers; it is held by the caller of everything here but
// Create, Destory and Oft_Buffer.
#pragma once

#include "driver/block/block_object.h"
#include "driver/block/chunk_key.h"
#include "driver/cache/page_pool.h"
#include "driver/kernel/locks.h"

// A data block holds one 64 KB chunk of a disk; the tables before the data lie in blocks of the same size.
constexpr ULONG Block_Bytes = Chunk_64K;
constexpr LONG Sectors_Per_Block = Chunk_Secs;
constexpr ULONG Region_Chunks = 128;  // 64 KB chunks of an 8 MB region

// Content of a data block, and what its record's Sec_Bits tell.
enum Block_State : UCHAR {
    Block_Empty = 0,    // never held data
    Block_Clean = 1,    // read from the server; bits: sectors present
    Block_Written = 2,  // written by the host; bits: sectors written, present and dirty
    Block_Saving = 4,   // being or having been written back; bits: sectors still dirty
};

// An entry's handle is its byte position among all entries, packed, plus one entry; a slot's handle is the
// slot's position inside. They name what has no lasting address.
using Ent_Handle = ULONG;

struct Rec_64K {
    Ent_Handle Slot_Ref;  // the slot that lists the block; 0: none
    QRNH_OBJ_RW* pOwner;  // the server object of the disk that the data belongs to
    UCHAR Sec_Bits[16];
};
static_assert(sizeof(Rec_64K) == 24);

struct Ent_8M {
    Ent_Handle Next_Free;            // while on p8M_List
    Ent_Handle* pTBL_Slot;           // the slot of a layer's region table that owns the entry; null: free
    LRU_Node* pNode[Region_Chunks];  // block of each chunk of the region, or null
    ULONG Nums;                      // blocks listed
};
static_assert(sizeof(Ent_8M) == 524);

constexpr Ent_Handle Slot_Handle(Ent_Handle Entry, ULONG Slot)
{
    return Entry + static_cast<ULONG>(offsetof(Ent_8M, pNode)) + 4 * Slot;
}

class QRNH_OBJ_MEM {
public:
    // Copy Bytes of a block, from its sector Sec on. Return Bytes.
    virtual LONG Read(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes);
    virtual LONG Write(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes);
    // 0, or -1: no memory for the pool, -3: no memory for the ring.
    virtual LONG Create(ULONG New_MB, ULONG New_Type);
    // Frees all but the object itself.
    virtual void Destory();

    // Address of a sector counted from the start of the data area, negative in the tables before it.
    // Waits until it can be mapped. Given back by Oft_Unuse of the same sector.
    UCHAR* Oft_Buffer(LONG Sector);
    void Oft_Unuse(LONG Sector);

    LONG Block_Index(const LRU_Node* pNode) const { return static_cast<LONG>(pNode - pLRU_Nodes); }

    // Map and give back the record of a block, and the entry of an entry or slot handle.
    Rec_64K* Rec_Get(const LRU_Node* pNode);
    void Rec_Put(const LRU_Node* pNode);
    Ent_8M* Ent_Get(Ent_Handle Handle);
    void Ent_Put(Ent_Handle Handle);

    // Promotes a block that was used: a cold one into the hot part, a hot one to its end.
    LRU_Node* LRU_Touch(LRU_Node* pNode);

    // The fields are the cache layers' to read; they change the ring, p8M_List and Users.
    ULONG MB;
    ULONG Type;
    volatile LONG Users;  // cache layers; changed by atomic add
    ULONG Toll_Bytes;     // of bookkeeping
    QRNH_OBJ_MEM* pNext;  // in the registry
    QRN_MDL* pQRN_MDL;
    LONG LRU_Nums;   // data blocks
    ULONG Hash_64K;  // sectors of the record area, the first of the pool
    ULONG Hash_8M;   // sectors of the entry area behind it; the data area follows
    LRU_Node* pLRU_Nodes;
    LRU_Node* pLRU_Cur;   // first of the cold part: where the search for a block to use again starts
    LRU_Node* pLRU_Mid;   // first of the hot part
    LRU_Node* pLRU_End;   // last used
    Ent_Handle p8M_List;  // free entries
    Busy_Mutex Obj_Lock;

private:
    LONG Init_Hash_LRU();
    void Init_Entries();
    void Init_Records();
};
