// SPDX-License-Identifier: MIT
// The fixed order of backends for one piece of a chunk. Worker threads, PASSIVE_LEVEL.
#pragma once

#include "driver/request/worker_block.h"

struct RW_Req;

// Routes the first bytes of what is left of the chunk (Left > 0) at the entry's pData and Sector; returns
// how many are done, at least 1. A failure marks the record and counts all that is left as done; so does a
// network that has let the worker go (RW_Entry::Hold), but for the mark.
LONG Route_Piece(RW_Entry* pEntry, RW_Req* pReq, LONG Left);
