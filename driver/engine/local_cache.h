// SPDX-License-Identifier: MIT
// Whether a disk has a RAM cache here, which its server is asked once.
#pragma once

#include "driver/request/worker_block.h"

// Settles it for the entry's disk if that has not happened, which may take as long as the server takes, puts
// the disk's cache object, or null, into the entry and returns the disk's Cache_State. Cache_Unknown: another
// worker is at it, or the disk may hold no worker now; the request is to wait (request/queues.h, Park_Record).
// pNotify: the Hw_Ext of the request, or null. Called at every admission of a request, after Pkt_Init. Worker
// threads, PASSIVE_LEVEL.
LONG Local_Init(RW_Entry* pEntry, PVOID pNotify);
