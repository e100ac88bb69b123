// SPDX-License-Identifier: MIT
// One chunk of a request: its choice under Active_Lock, its run, its end. Worker threads,
// PASSIVE_LEVEL.
#pragma once

#include "driver/request/worker_block.h"

struct RW_Req;

// What a pick leaves of its record.
enum class Left {
    Nothing,
    Chunks,               // another worker may take the next at once
    Chunks_Without_Slot,  // the disk has no free slot for them
};

struct Chunk {
    RW_Req* pReq;
    ULONG Index;
    LONG Bytes;
    Left Rest;
};

// Picks the next chunk of the first admitted record that may run, and is not of the disk numbered Not_Lun
// (-1: of any), and sets the entry up for it. False when there is none.
bool Chunk_Pick(RW_Entry* pEntry, Chunk& Picked, LONG Not_Lun);

// Runs a picked chunk to its end; the worker that ends a record's last chunk completes the record. A chunk
// whose worker other disks need goes back to its record and is picked again later.
void Chunk_Run(RW_Entry* pEntry, const Chunk& Picked);
