// SPDX-License-Identifier: MIT
// Which block holds which chunk of a disk: the region table and the region entries behind it.
#include "driver/cache/cache_layer.h"

#include "driver/cache/cache_stats.h"

using formats::CacheStats;

static ULONG Region_Slot(ULONG Key)
{
    return Key % Region_Chunks;
}

bool QRNH_MEM_RW::Region_Exists(ULONG Key) const
{
    if (Key / Region_Chunks < Nums_8M)
        return true;
    DbgPrint("\nQRNH_MEM_RW: 8M_Idx=%X(%X), Error!", Key / Region_Chunks, Nums_8M);
    return false;
}

Ent_8M* QRNH_MEM_RW::Region_Entry(Ent_Handle* pSlot) const
{
    if (*pSlot == 0)
        return nullptr;
    Ent_8M* pEntry = pObj_Mem->Ent_Get(*pSlot);
    if (pEntry->pTBL_Slot == pSlot)
        return pEntry;
    // Freed since, or handed to another region or disk.
    pObj_Mem->Ent_Put(*pSlot);
    return nullptr;
}

void QRNH_MEM_RW::Find(ULONG Key, Record_Guard& Rec)
{
    // A block that lost its place when another disk failed to take it over is listed nowhere.
    if (pLast && pLast->ID == Key) {
        Rec.Take(pLast);
        if (Rec->pOwner == pSR_RW && Rec->Slot_Ref != 0)
            return;
        Rec.Give();
    }
    if (!Region_Exists(Key))
        return;
    Ent_Handle* pSlot = &p8M_TBL[Key / Region_Chunks];
    const Ent_8M* pEntry = Region_Entry(pSlot);
    if (!pEntry)
        return;
    LRU_Node* pNode = pEntry->pNode[Region_Slot(Key)];
    pObj_Mem->Ent_Put(*pSlot);
    if (!pNode)
        return;

    Rec.Take(pNode);
    Ent_Handle Slot = Slot_Handle(*pSlot, Region_Slot(Key));
    if (pNode->ID == Key && Rec->Slot_Ref == Slot && Rec->pOwner == pSR_RW) {
        pLast = pObj_Mem->LRU_Touch(pNode);
        return;
    }
    DbgPrint("\nQRNH_MEM_RW::Error Hit=%04X, %X(%X) %p(%p) %p(%p)", pObj_Mem->Block_Index(pNode), Key,
             pNode->ID, reinterpret_cast<PVOID>(Slot), reinterpret_cast<PVOID>(Rec->Slot_Ref), pSR_RW,
             Rec->pOwner);
    Rec.Give();
}

// Takes the block out of the entry that lists it; an entry that lists nothing more becomes free.
void QRNH_MEM_RW::Unlist(LRU_Node* pNode, Ent_Handle Slot)
{
    ULONG Place = Region_Slot(pNode->ID);
    Ent_8M* pEntry = pObj_Mem->Ent_Get(Slot);
    pEntry->pNode[Place] = nullptr;
    if (--pEntry->Nums == 0) {
        pEntry->Next_Free = pObj_Mem->p8M_List;
        pEntry->pTBL_Slot = nullptr;
        pObj_Mem->p8M_List = Slot - Slot_Handle(0, Place);
    }
    pObj_Mem->Ent_Put(Slot);
}

// There is one for each block, and the block that is to be listed is in none.
Ent_8M* QRNH_MEM_RW::New_Region_Entry(Ent_Handle* pSlot)
{
    *pSlot = pObj_Mem->p8M_List;
    Ent_8M* pEntry = pObj_Mem->Ent_Get(*pSlot);
    pEntry->pTBL_Slot = pSlot;
    pObj_Mem->p8M_List = pEntry->Next_Free;
    return pEntry;
}

// Tells the statistics that a block passes to this disk, from the owner named in its record if it has one.
static void Count_New_Owner(const LRU_Node* pNode, const QRNH_OBJ_RW* pOld, const QRNH_OBJ_RW* pNew)
{
    if (pNode->ID != LRU_No_ID)
        Cache_Stats_Add(pOld, &CacheStats::Blocks_Used, -1);
    Cache_Stats_Add(pNew, &CacheStats::Blocks_Used, 1);
}

void QRNH_MEM_RW::Install(Record_Guard& Rec, ULONG Key)
{
    LRU_Node* pNode = Rec.Node();
    Ent_Handle Old_Slot = Rec->Slot_Ref;
    Rec->Slot_Ref = 0;
    Rec.Give();
    if (Old_Slot != 0)
        Unlist(pNode, Old_Slot);
    if (!Region_Exists(Key))
        return;
    Ent_Handle* pSlot = &p8M_TBL[Key / Region_Chunks];
    Ent_8M* pEntry = Region_Entry(pSlot);
    if (!pEntry)
        pEntry = New_Region_Entry(pSlot);
    pEntry->pNode[Region_Slot(Key)] = pNode;
    ++pEntry->Nums;
    pObj_Mem->Ent_Put(*pSlot);

    Rec.Take(pNode);
    Count_New_Owner(pNode, Rec->pOwner, pSR_RW);
    Rec->Slot_Ref = Slot_Handle(*pSlot, Region_Slot(Key));
    Rec->pOwner = pSR_RW;
    pNode->ID = Key;
    pLast = pObj_Mem->LRU_Touch(pNode);
}
