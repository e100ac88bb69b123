// SPDX-License-Identifier: MIT
#include "driver/cache/memory_object.h"

#include "driver/kernel/delay.h"
#include "driver/kernel/pool.h"

namespace {

constexpr LONG Recs_Per_Block = Block_Bytes / sizeof(Rec_64K);
constexpr LONG Ents_Per_Block = Block_Bytes / sizeof(Ent_8M);
static_assert(Recs_Per_Block == 2730 && Ents_Per_Block == 125);
constexpr LONG Map_Retry_Ms = 100;

constexpr ULONG Ent_Index(Ent_Handle Handle)
{
    return Handle / sizeof(Ent_8M) - 1;
}

constexpr Ent_Handle Handle_Of(LONG Index)
{
    return sizeof(Ent_8M) * (static_cast<ULONG>(Index) + 1);
}

}  // namespace

LONG QRNH_OBJ_MEM::Create(ULONG New_MB, ULONG New_Type)
{
    MB = New_MB;
    Type = New_Type;
    pQRN_MDL = MDL_Alloc(MB);
    if (!pQRN_MDL)
        return -1;
    LONG Blocks = static_cast<LONG>(pQRN_MDL->Chunk_Bytes / Block_Bytes) * pQRN_MDL->Chunk_Nums;
    DbgPrint("\nQRNH_OBJ_MEM::Create %dm %d, LRU_Nums=%d", MB, Type, Blocks);
    LONG Rec_Blocks = (Blocks + Recs_Per_Block - 1) / Recs_Per_Block;
    LONG Ent_Blocks = (Blocks + Ents_Per_Block - 1) / Ents_Per_Block;
    LRU_Nums = Blocks - Rec_Blocks - Ent_Blocks;
    Hash_64K = static_cast<ULONG>(Rec_Blocks * Sectors_Per_Block);
    Hash_8M = static_cast<ULONG>(Ent_Blocks * Sectors_Per_Block);
    DbgPrint("\nQRNH_OBJ_MEM: Hash_64K=%dk, Hash_8M=%dk", Hash_64K / 2, Hash_8M / 2);
    if (Init_Hash_LRU() < 0) {
        MDL_Free(pQRN_MDL);
        return -3;
    }
    Mutex_Init(Obj_Lock);
    return 0;
}

LONG QRNH_OBJ_MEM::Init_Hash_LRU()
{
    ULONG Ring_Bytes = sizeof(LRU_Node) * static_cast<ULONG>(LRU_Nums);
    pLRU_Nodes = static_cast<LRU_Node*>(ExAllocatePoolWithTag(NonPagedPool, Ring_Bytes, Tag_Memory));
    DbgPrint("\nQRNH_OBJ_MEM::Init_Hash_LRU=%p LRU_Nums=%d(%dBytes)", pLRU_Nodes, LRU_Nums, Ring_Bytes);
    if (!pLRU_Nodes)
        return -1;
    pLRU_Cur = LRU_Init(pLRU_Nodes, LRU_Nums);
    pLRU_Mid = pLRU_Nodes + 4 * LRU_Nums / 5;
    pLRU_End = pLRU_Nodes + LRU_Nums - 1;
    Init_Entries();
    Init_Records();
    Toll_Bytes = Ring_Bytes + formats::sector_bytes * (Hash_64K + Hash_8M);
    DbgPrint("\nQRNH_OBJ_MEM: Toll_Bytes=%d(%dk)", Toll_Bytes, Toll_Bytes / 1024);
    return 0;
}

// All free and listed in ascending order: one per block, so that they never run out.
void QRNH_OBJ_MEM::Init_Entries()
{
    p8M_List = 0;
    for (LONG k = LRU_Nums - 1; k >= 0; --k) {
        Ent_Handle Handle = Handle_Of(k);
        Ent_8M* pEntry = Ent_Get(Handle);
        RtlZeroMemory(pEntry, sizeof *pEntry);
        pEntry->Next_Free = p8M_List;
        p8M_List = Handle;
        Ent_Put(Handle);
    }
}

void QRNH_OBJ_MEM::Init_Records()
{
    for (LONG b = 0; b < LRU_Nums; ++b) {
        Rec_Get(pLRU_Nodes + b)->Slot_Ref = 0;
        Rec_Put(pLRU_Nodes + b);
    }
}

void QRNH_OBJ_MEM::Destory()
{
    DbgPrint("\nQRNH_OBJ_MEM: Destory %p, %dMB Type=%d", this, MB, Type);
    MDL_Free(pQRN_MDL);
    ExFreePoolWithTag(pLRU_Nodes, Tag_Memory);
}

UCHAR* QRNH_OBJ_MEM::Oft_Buffer(LONG Sector)
{
    ULONG Pool_Sector = static_cast<ULONG>(Sector) + Hash_64K + Hash_8M;
    for (;;) {
        if (UCHAR* pBuffer = MDL_Map(pQRN_MDL, Pool_Sector))
            return pBuffer;
        Sleep_Ms(Map_Retry_Ms);
        DbgPrint("\nQRNH_Oft_Buffer: %X NULL", Pool_Sector);
    }
}

void QRNH_OBJ_MEM::Oft_Unuse(LONG Sector)
{
    MDL_Unuse(pQRN_MDL, static_cast<ULONG>(Sector) + Hash_64K + Hash_8M);
}

LONG QRNH_OBJ_MEM::Read(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes)
{
    LONG Sector = Sectors_Per_Block * Block_Index(pNode) + static_cast<LONG>(Sec);
    RtlCopyMemory(pBuffer, Oft_Buffer(Sector), static_cast<SIZE_T>(Bytes));
    Oft_Unuse(Sector);
    return Bytes;
}

LONG QRNH_OBJ_MEM::Write(LRU_Node* pNode, ULONG Sec, PVOID pBuffer, LONG Bytes)
{
    LONG Sector = Sectors_Per_Block * Block_Index(pNode) + static_cast<LONG>(Sec);
    RtlCopyMemory(Oft_Buffer(Sector), pBuffer, static_cast<SIZE_T>(Bytes));
    Oft_Unuse(Sector);
    return Bytes;
}

// The record area begins the pool.
static LONG Rec_Sector(const QRNH_OBJ_MEM* pObj, LONG Block)
{
    return Sectors_Per_Block * (Block / Recs_Per_Block) - static_cast<LONG>(pObj->Hash_64K + pObj->Hash_8M);
}

static LONG Ent_Sector(const QRNH_OBJ_MEM* pObj, Ent_Handle Handle)
{
    return Sectors_Per_Block * static_cast<LONG>(Ent_Index(Handle) / Ents_Per_Block) -
           static_cast<LONG>(pObj->Hash_8M);
}

Rec_64K* QRNH_OBJ_MEM::Rec_Get(const LRU_Node* pNode)
{
    LONG Block = Block_Index(pNode);
    auto pRecs = reinterpret_cast<Rec_64K*>(Oft_Buffer(Rec_Sector(this, Block)));
    return pRecs + Block % Recs_Per_Block;
}

void QRNH_OBJ_MEM::Rec_Put(const LRU_Node* pNode)
{
    Oft_Unuse(Rec_Sector(this, Block_Index(pNode)));
}

Ent_8M* QRNH_OBJ_MEM::Ent_Get(Ent_Handle Handle)
{
    auto pEnts = reinterpret_cast<Ent_8M*>(Oft_Buffer(Ent_Sector(this, Handle)));
    return pEnts + Ent_Index(Handle) % Ents_Per_Block;
}

void QRNH_OBJ_MEM::Ent_Put(Ent_Handle Handle)
{
    Oft_Unuse(Ent_Sector(this, Handle));
}

LRU_Node* QRNH_OBJ_MEM::LRU_Touch(LRU_Node* pNode)
{
    LRU_Node** Markers[] = {&pLRU_Cur, &pLRU_Mid, &pLRU_End};
    ULONG Level = pNode->ID_Cnts;
    if (*Markers[Level] == pNode)
        *Markers[Level] = pNode->Next;
    if (*Markers[Level + 1] == pNode)
        return pNode;
    LRU_Node** pTarget = &pLRU_End;
    if (Level == 0) {
        if (pLRU_Mid->ID_Cnts == 0) {
            pLRU_Mid = pLRU_Mid->Next;
        } else {
            --pLRU_Mid->ID_Cnts;
            pTarget = &pLRU_Mid;
        }
        pNode->ID_Cnts = 1;
    }
    if (*pTarget == pNode)
        return pNode;
    LRU_Unlink(pNode);
    LRU_Insert_After(*pTarget, pNode);
    *pTarget = pNode;
    return pNode;
}
