// SPDX-License-Identifier: MIT
// The disks' slots: a chunk that needs its server is begun only when its disk has a free one. What the local
// images hold, and the first look at a server's image, go on without. Workers.
#pragma once

#include "driver/request/worker_block.h"

struct RW_Req;

// Active_Lock is held by the caller of these three.
bool Needs_Slot(const RW_Req* pReq);
bool Slot_Free(ULONG Lun);
void Take_Slot(RW_Entry* pEntry, ULONG Lun);

// Gives back what the entry's chunk has. Takes Active_Lock.
void Give_Slot(RW_Entry* pEntry);

// The chunk in progress needs more than the local images hold, and so a slot. False: there is none, and the
// chunk is to be run again when there is. Takes Active_Lock.
bool Slot_Past_Images(RW_Entry* pEntry, RW_Req* pReq);
