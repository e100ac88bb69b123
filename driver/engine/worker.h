// The worker threads, their blocks, and the queues between them and SRB execution.
//
//   Pending_Queue  records queued and not yet admitted; guarded by Pending_Lock
//   Active_List    admitted records in admission order; guarded by Active_Lock, which also guards
//                  pRW_List and every admitted record's Chunk_Next
//
// Pending_Lock and Active_Lock are never held together, and nothing is locked or waited for while
// either is held.
#pragma once

#include <nt.h>

#include "driver/engine/block_object.h"
#include "driver/startup/disk_table.h"
#include "driver/startup/settings.h"
#include "formats/wire.h"

struct RW_Req;

constexpr ULONG Bounce_Bytes = 65536;  // the largest chunk

// Copy of a disk's four tuning bytes.
struct Disk_Parms_Bytes {
    UCHAR Read_KB;
    UCHAR Write_KB;
    UCHAR Disk_Flags;
    UCHAR Retry_Mins;
};
static_assert(sizeof(Disk_Parms_Bytes) == 4);

// How the packets of one disk and direction are made and where they go.
struct Pkt_Setup {
    formats::ServerRecord* pServer;  // a record of Boot_Param; sends use a copy (net/servers.h)
    Seq_Counters* pCounters;
    Disk_Parms_Bytes Disk_Parms;
    ULONG Pkt_Size;    // bytes per network packet
    ULONG Split_Size;  // bytes per chunk
    QRNH_OBJ_RW* pMC_Write;
};
static_assert(sizeof(Pkt_Setup) == 24);

// A worker and its packet in flight. Only its own thread touches a block, but for the fields that
// Ack_Lock guards and those that match answers: the receive thread reads Hdr, pData and Length under
// Ack_Lock while Frag_Mask is not 0, and the worker changes them only while it is 0.
struct RW_Entry {
    LIST_ENTRY Link;  // in pRW_List
    KSPIN_LOCK Ack_Lock;
    KEVENT Ack_Event;          // synchronization: the packet is complete or needs attention
    volatile LONG Retry_Left;  // Ack_Lock: time-outs that the packet in flight may still have
    volatile ULONG Frag_Mask;  // Ack_Lock: bit k-1 set while fragment k is unanswered; 0: complete
    volatile ULONG Ack_State;  // Ack_Lock: kind of the last answer, and a count of answers above
    ULONG Lun;
    UCHAR* pData;        // next byte of the current piece
    ULONG Sector;        // engine sector at pData
    RW_Entry* pWr_Slot;  // slot block of the write chunk in progress, or null
    Pkt_Setup Setup;
    formats::WireHeader Hdr;  // Worker_Byte's low 3 bits are this worker's index, for ever
    alignas(8) UCHAR Bounce[Bounce_Bytes];

    ULONG Index() const { return Hdr.Worker_Byte & formats::worker_index_mask; }
};

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

// Creates the queues, up to Count workers and the receive thread. Loading thread.
void Workers_Start(ULONG Count);

// Queues a record and wakes one worker. Any thread at up to DISPATCH_LEVEL.
void Req_Queue(RW_Req* pReq);

VOID NTAPI QRN_RW_Thread(PVOID Context);
