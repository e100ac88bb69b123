// SPDX-License-Identifier: MIT
// Holds the mapped record of one block, and gives its window back at the end of the scope or earlier. The
// memory object's Obj_Lock is held as long as it holds one.
#pragma once

#include "driver/cache/memory_object.h"

class Record_Guard {
public:
    explicit Record_Guard(QRNH_OBJ_MEM* pObj_Mem) : pObj_Mem_(pObj_Mem) {}
    ~Record_Guard() { Give(); }
    Record_Guard(const Record_Guard&) = delete;
    Record_Guard& operator=(const Record_Guard&) = delete;

    // Maps the block's record in place of the one it held.
    void Take(LRU_Node* pNode)
    {
        Give();
        pNode_ = pNode;
        pRec_ = pObj_Mem_->Rec_Get(pNode);
    }
    void Give()
    {
        if (pRec_)
            pObj_Mem_->Rec_Put(pNode_);
        pRec_ = nullptr;
    }

    explicit operator bool() const { return pRec_ != nullptr; }
    Rec_64K* operator->() const { return pRec_; }
    // The block, also after its record was given back.
    LRU_Node* Node() const { return pNode_; }

private:
    QRNH_OBJ_MEM* pObj_Mem_;
    LRU_Node* pNode_ = nullptr;
    Rec_64K* pRec_ = nullptr;
};
