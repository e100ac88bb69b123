// SPDX-License-Identifier: MIT
// A run of bytes over the network: packets one after another, each sent and waited for, with time-outs,
// resends, failover and mirroring. Worker threads, PASSIVE_LEVEL, holding no lock.
#pragma once

#include "driver/request/worker_block.h"

// Sends the bytes at the entry's pData and Sector as packets and waits for each. Returns the bytes done
// (0 when asked for 0) or -1 when a packet failed for good. The entry's pData, Sector and Pkt_Index are
// the same on return as on entry.
LONG Net_Send_Wait(RW_Entry* pEntry, LONG Bytes);
