// SPDX-License-Identifier: MIT
// The completion path: carries the end of a request from a worker (PASSIVE_LEVEL) into the miniport's
// own context, where alone the port driver may be notified. One IRP and one SRB of the adapter serve
// all notices in turn.
#pragma once

#include <nt.h>

struct Hw_Ext;
struct RW_Req;

// Finishes a record whose last chunk is done: the one place where a queued request ends.
void Req_Complete(RW_Req* pReq, ULONG Lun);

// Sends a completion notice for Srb, waiting for the channel; without an SRB, a notice that the disk can
// take its next request, dropped when the channel is busy.
void Chan_Send(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb, ULONG Lun);

// Stops a running image synchronisation and waits up to about 3 seconds for its end.
void QRN_RW_HDD_Stop();
