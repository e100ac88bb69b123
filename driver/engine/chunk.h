// SPDX-License-Identifier: MIT
// One chunk of a request: its choice under Active_Lock, its run, its end. Worker threads,
// PASSIVE_LEVEL.
#pragma once

#include "driver/engine/worker_block.h"

struct RW_Req;

struct Chunk {
    RW_Req* pReq;
    LONG Bytes;
    // What the pick leaves of the record: 0, this was its last chunk; positive, more chunks that another
    // worker may take at once; negative, more chunks but no free slot of the disk.
    LONG Rest;
};

// Picks the next chunk of the first admitted record that may run and sets the entry up for it. False
// when there is none.
bool Chunk_Pick(RW_Entry* pEntry, Chunk& Picked);

// Runs a picked chunk to its end; the worker that ends a record's last chunk completes the record.
void Chunk_Run(RW_Entry* pEntry, const Chunk& Picked);
