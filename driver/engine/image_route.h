// The local image step of routing, in boot mode 7 only.
#pragma once

#include "driver/engine/worker_block.h"

struct RW_Req;

// The image synchronisation: null while it was never started, Sync_Ended once its start has been
// claimed or after its end, otherwise its work area, whose first dword is the stop flag.
extern PVOID volatile pSync_State;
inline const PVOID Sync_Ended = reinterpret_cast<PVOID>(~static_cast<ULONG_PTR>(0));

// Routes the first Bytes of the piece at the entry's pData and Sector. Positive: bytes done; -m: the
// first m bytes go to the next backend. Worker threads, PASSIVE_LEVEL.
LONG Img_Route(RW_Entry* pEntry, RW_Req* pReq, LONG Bytes);
