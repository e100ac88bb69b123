// SPDX-License-Identifier: MIT
// The worker blocks, and the queues between SRB execution and the workers.
//
//   Pending_Queue  records queued and not yet admitted; guarded by Pending_Lock
//   Active_List    admitted records in admission order; guarded by Active_Lock, which also guards
//                  pRW_List and every admitted record's Chunk_Next
//
// Records that cannot be admitted now, while others can, are parked under a lock of their own.
//
// Pending_Lock and Active_Lock are never held together, and nothing is locked or waited for while
// either is held.
#pragma once

#include "driver/request/worker_block.h"
#include "driver/state/settings.h"

struct RW_Req;

// Set of all worker blocks in creation order, and the pool of slot blocks: a read borrows one from its
// first picked chunk to its last completed one, a write chunk while it runs. Only the block's index is
// used. Taken from the head, given back at the tail.
extern LIST_ENTRY pRW_List;
extern RW_Entry* pRW_Tbl[RW_Threads_Max];  // by worker index; fixed once the threads start
extern volatile LONG RW_Count;             // running workers

extern LIST_ENTRY Pending_Queue;
extern KSPIN_LOCK Pending_Lock;
extern LIST_ENTRY Active_List;
extern KSPIN_LOCK Active_Lock;
extern KSEMAPHORE RW_Sem;

// Makes everything empty. Loading thread.
void Queues_Init();

// Wakes a worker for something that has been queued or left for another. Nothing is forgotten when as many
// wake-ups as workers are on their way: each of them finds whatever was queued before it. Up to
// DISPATCH_LEVEL.
void Wake_Worker();

// Queues a record and wakes one worker. Any thread at up to DISPATCH_LEVEL.
void Req_Queue(RW_Req* pReq);

// Removes the record queued longest ago; null when there is none.
RW_Req* Take_Pending();

// Puts a record aside until Unpark_Records queues all that were, in their order. Parking_Round is read before
// the look at what keeps the record from being admitted: when that has ended since, the record is queued
// again at once. Up to DISPATCH_LEVEL.
ULONG Parking_Round();
void Park_Record(RW_Req* pReq, ULONG Round);
void Unpark_Records();
