// A disk's RAM cache, as the workers see it.
#pragma once

#include "driver/engine/worker_block.h"

// Puts the disk's cache object, or null, into the entry and returns the disk's Cache_State. Called at
// every admission of a request, after Pkt_Init. Worker threads, PASSIVE_LEVEL.
LONG Local_Init(RW_Entry* pEntry);
