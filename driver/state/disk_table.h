// SPDX-License-Identifier: MIT
// The disk table beside Boot_Param's disk records: counters and cache record of each disk.
#pragma once

#include <nt.h>

#include "driver/block/block_object.h"
#include "formats/boot_block.h"

// A worker counts into the read or the write triple of a disk. Changed by atomic add only.
struct Seq_Counters {
    volatile LONG Seq;       // tag set-ups; the low 16 bits go into the wire header
    volatile LONG Secs;      // sectors announced by tag set-ups
    volatile LONG TimeOuts;  // of packets
};

struct Lun_Counters {
    volatile LONG Free_Slots;  // chunks that may still be started at once; changed by atomic add
    Seq_Counters Rd;
    Seq_Counters Wr;
    volatile LONG Queued;  // read/write SRBs queued and not yet completed; changed by atomic add
};
static_assert(sizeof(Lun_Counters) == 32);
static_assert(offsetof(Lun_Counters, Rd) == 4);
static_assert(offsetof(Lun_Counters, Wr) == 16);
static_assert(offsetof(Lun_Counters, Queued) == 28);

enum Cache_State : LONG {
    Cache_None = -1,
    Cache_Unknown = 0,  // not negotiated with the server
    Cache_In_Use = 1,
};

// State and pMC_Write are written under Lock and never change once State is not Cache_Unknown.
struct Local_Cache_Record {
    KEVENT Lock;  // synchronization event used as a mutex; signalled: free
    volatile LONG State;
    QRNH_OBJ_RW* pMC_Write;
    LONG Spent;   // Lock: time-outs of a negotiation that was put off
    bool Set_Up;  // the disk existed at start-up, so requests for it can take its slots; never changes then
};

extern Lun_Counters Lun_Stats[formats::disk_count_max];
extern Local_Cache_Record Local_Cache[formats::disk_count_max];

constexpr LONG Delay_Over = -1;

// Delay_Over from the first 64 KB write to LUN 0 on; until then delay-load disks are held back.
// Written only by HwStartIo.
extern volatile LONG Delay_Cnt;
