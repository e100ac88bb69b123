// SPDX-License-Identifier: MIT
// The local image step of routing, in boot mode 7 only. Worker threads, PASSIVE_LEVEL.
//
// The order of sources for a read of disk 0 is: the disk's part of the temporary image, the system image, RAM
// cache and server. What a write could not put into the first went to the last, and the system image between
// them no longer counts for those chunks.
#pragma once

#include "driver/request/worker_block.h"

struct RW_Req;

// Routes the first Bytes, all that is left of the chunk, at the entry's pData and Sector. Positive: bytes
// done, or that the record has failed; -m: the first m bytes go to the next backend.
LONG Img_Route(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes);

// RAM cache or server took a write that the images did not.
void Img_Written_Past(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes);

// The server failed a read that the images had passed on. Positive: bytes done all the same, from a system
// image that now will not be checked.
LONG Img_Server_Lost(RW_Entry* pEntry, const RW_Req* pReq, LONG Bytes);
