// SPDX-License-Identifier: MIT
// The end of a request. A worker at PASSIVE_LEVEL, or whoever queued an internal record.
#pragma once

#include <nt.h>

struct RW_Req;

// Finishes a record whose last chunk is done: the one place where a queued request ends.
void Req_Complete(RW_Req* pReq, ULONG Lun);
