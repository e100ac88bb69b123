// SPDX-License-Identifier: MIT
// The request record, the unit of work from SRB execution to the workers. For an SRB it is the SRB's
// own extension, so queueing allocates nothing; internal records of the same layout, without an SRB,
// are embedded in the objects that queue them.
#pragma once

#include <nt.h>

#include "driver/request/worker_block.h"

constexpr LONG Req_Failed = -1;
constexpr LONG Req_Brief = 0x10000;  // of an internal record's Status: patience of about 10 s

// Chunks that may be run again are the first of a record.
constexpr ULONG Again_Max = 32;

// What the admitting worker settled, for every worker that takes a chunk.
struct Req_Setup {
    Pkt_Setup Pkt;
    UCHAR Hdr[16];       // the first bytes of the wire header
    ULONG Again;         // Active_Lock: bit n set while chunk n of the record waits to be run again
    USHORT Past_Images;  // Active_Lock: not 0 when the local images lack some of it, so that it takes a slot
    SHORT Spent;         // Active_Lock: time-outs that a chunk had before it was put back; at the slave below 0
};
static_assert(sizeof(Req_Setup) == 48);

struct RW_Req {
    LIST_ENTRY Link;           // in Pending_Queue, then in Active_List
    PSCSI_REQUEST_BLOCK pSrb;  // null for an internal record
    PVOID pDone;               // SRB record: its adapter's Hw_Ext; internal: a KEVENT set at the end, or null
    volatile LONG Status;      // SRB record: 0 or Req_Failed; internal: the operation to send (bytes 4 and 5
                               // of the header, low 16 bits) or Req_Failed
    ULONG Lun;
    ULONG Write;  // 0 for a read, 2 for a write
    ULONG Bytes;
    UCHAR* pBuffer;
    ULONG Sector;  // engine sector: LBA + 1
    // The rest belongs to the workers.
    volatile LONG Chunk_Nums;  // chunks not yet finished; changed by atomic add
    ULONG Chunk_Next;          // next chunk to hand out; Active_Lock
    RW_Entry* pSlot;           // reads: the worker block lent as slot block, or null
    Req_Setup Setup;
};
static_assert(sizeof(RW_Req) == 100);
static_assert(offsetof(RW_Req, pSrb) == 8);
static_assert(offsetof(RW_Req, Setup) == 52);
