// SPDX-License-Identifier: MIT
// Rings of things that are used again when nobody holds them: the mapping windows of a page pool, the
// data blocks of a memory object. The owner's lock guards a ring.
#pragma once

#include <nt.h>

constexpr ULONG LRU_No_ID = 0xFFFFFFFF;

struct LRU_Node {
    LRU_Node* Prev;
    LRU_Node* Next;    // in scan order
    ULONG ID;          // what the node holds, or LRU_No_ID
    UCHAR ID_Cnts;     // data blocks: 1 in the hot part of the ring
    UCHAR State;       // data blocks: Block_State
    UCHAR InUse_Nums;  // current holders
};
static_assert(sizeof(LRU_Node) == 16);

// Links n nodes, holding nothing, into a ring in ascending order. Returns node 0.
LRU_Node* LRU_Init(LRU_Node* pNodes, LONG Nums);

// The first node from the cursor on that nobody holds. Null when all are held: the caller lets go of its
// lock for LRU_Wait_Ms and tries again, or does without.
LRU_Node* LRU_Get(LRU_Node* pCursor);
constexpr LONG LRU_Wait_Ms = 100;

void LRU_Unlink(LRU_Node* pNode);
void LRU_Insert_After(LRU_Node* pPlace, LRU_Node* pNode);
