// SPDX-License-Identifier: MIT
// The physical memory of one RAM cache, in large chunks that are seen through at most eight windows
// ("views") of each kind: chunks of pages that the system gave us, and behind them chunks of memory above
// 4 GB that it does not manage. Worker threads, PASSIVE_LEVEL; Pool_Lock guards all but the fields that
// never change after MDL_Alloc.
#pragma once

#include "driver/cache/lru_ring.h"

// The windows of one kind of chunk. Node k and address k belong together: the address maps chunk ID
// unless it is null.
struct MDL_Views {
    LRU_Node* pNodes;
    LRU_Node* pCur;  // the next window to be used again; null: no window of this kind was ever set up
    UCHAR** pViews;
};

struct QRN_MDL {
    KEVENT Pool_Lock;
    ULONG Chunk_Bytes;
    LONG MDL_Nums;      // chunks of pages, before the chunks above 4 GB
    LONG Chunk_Nums;    // all chunks
    USHORT* pSlot_Map;  // per chunk: the window, of its kind, that mapped it last
    PMDL* pMDL_List;    // per chunk of pages
    MDL_Views MDL;
    MDL_Views PAE;
};

// A pool of at least so many megabytes, or null. The first pool also takes all memory above 4 GB.
QRN_MDL* MDL_Alloc(ULONG MB);
// Undoes every window and gives all memory back. Returns 0; null is allowed.
LONG MDL_Free(QRN_MDL* pPool);

// Address of a 512-byte pool sector, good to the end of its chunk and until MDL_Unuse of a sector in the
// same chunk. Null when the chunk cannot be mapped now.
UCHAR* MDL_Map(QRN_MDL* pPool, ULONG Sector);
void MDL_Unuse(QRN_MDL* pPool, ULONG Sector);
