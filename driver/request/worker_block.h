// SPDX-License-Identifier: MIT
// A worker's block: its packet in flight and its bounce area.
#pragma once

#include <nt.h>

#include "driver/block/block_object.h"
#include "driver/state/disk_table.h"
#include "formats/wire.h"

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

// How a worker is held by the disk that it serves (request/holds.h).
enum class Hold_Kind : UCHAR {
    Firm,    // to the end of the run
    Loose,   // until other disks need the worker: the run can be done again
    Let_Go,  // they did: the network has given the run up, and it is to be done again
};

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
    Hold_Kind Hold;
    LONG Spent;          // time-outs that the packet to be sent next had before the worker was let go; those
                         // at the slave server below 0
    bool Has_Slot;       // the chunk in progress holds one of its disk's Free_Slots
    bool Server_Failed;  // the disk's server has failed the run in progress
    bool Cut_Short;      // the server was not waited for to the end, as an image may have what is read
    bool Brief;          // patience of about 10 s, whatever the disk's
    PVOID pNotify;       // the Hw_Ext that time-outs of the request in progress are told to, or null
    Pkt_Setup Setup;
    formats::WireHeader Hdr;  // Worker_Byte's low 3 bits are this worker's index, for ever
    alignas(8) UCHAR Bounce[Bounce_Bytes];

    ULONG Index() const { return Hdr.Worker_Byte & formats::worker_index_mask; }

    // Where in its chunk the data at pData lies, in sectors; 0 for what is no part of the chunk, as a block
    // of a RAM cache that makes room for it. A chunk's data is in Bounce while the chunk is carried out.
    ULONG Sec_In_Chunk() const
    {
        return pData >= Bounce && pData < Bounce + Bounce_Bytes
                   ? static_cast<ULONG>(pData - Bounce) / formats::sector_bytes
                   : 0;
    }
};

// Index of the slot block that the entry's write chunk holds, or the worker's own when it holds none.
inline ULONG Write_Slot_Index(const RW_Entry* pEntry)
{
    return (pEntry->pWr_Slot ? pEntry->pWr_Slot : pEntry)->Index();
}
