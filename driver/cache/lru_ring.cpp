// SPDX-License-Identifier: MIT
#include "driver/cache/lru_ring.h"

void LRU_Unlink(LRU_Node* pNode)
{
    pNode->Prev->Next = pNode->Next;
    pNode->Next->Prev = pNode->Prev;
}

void LRU_Insert_After(LRU_Node* pPlace, LRU_Node* pNode)
{
    pNode->Prev = pPlace;
    pNode->Next = pPlace->Next;
    pPlace->Next->Prev = pNode;
    pPlace->Next = pNode;
}

LRU_Node* LRU_Init(LRU_Node* pNodes, LONG Nums)
{
    pNodes->Prev = pNodes->Next = pNodes;
    for (LONG i = 0; i < Nums; ++i) {
        LRU_Node* pNode = pNodes + i;
        if (i > 0)
            LRU_Insert_After(pNode - 1, pNode);
        pNode->ID = LRU_No_ID;
        pNode->ID_Cnts = pNode->State = pNode->InUse_Nums = 0;
    }
    return pNodes;
}

LRU_Node* LRU_Get(LRU_Node* pCursor)
{
    LRU_Node* pNode = pCursor;
    while (pNode->InUse_Nums != 0) {
        pNode = pNode->Next;
        if (pNode == pCursor) {
            DbgPrint("\nQRN LRU: InUse_Nums Error");
            return nullptr;
        }
    }
    if (pNode->ID_Cnts != 0)
        DbgPrint("\nQRN LRU: ID_Cnts Error");
    return pNode;
}
