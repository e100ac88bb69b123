// SPDX-License-Identifier: MIT
// Requests that the executive makes for a thread: it frees the IRP itself when the request has come to its
// end, and tells the thread by its event and status block. Made at PASSIVE_LEVEL, ended at up to
// DISPATCH_LEVEL.
#pragma once

#include <nt.h>

namespace machine {

// What the executive remembers of such a request, behind the IRP's last stack location.
struct OwnRequest {
    ULONG output_bytes;  // of a control request: room in its user's buffer
};

// Null when there is no memory. For the calling thread.
PIRP new_own_request(CCHAR stack_size, PKEVENT event, PIO_STATUS_BLOCK status_block);
// Not sent after all.
void drop_own_request(PIRP irp);

bool is_own_request(const IRP& irp);
OwnRequest& own_request(IRP& irp);

// The completion routines have all run: hands the results to the thread and frees the IRP.
void end_own_request(PIRP irp);

// Parts of the end. Each knows by the IRP whether there is something for it.
// What a control request brings goes into its user's buffer, if it succeeded, and its own buffer is freed.
void give_control_output(IRP& irp, const IO_STATUS_BLOCK& result);
// The list that describes the buffer of a read or write is freed.
void free_transfer_list(IRP& irp, const IO_STATUS_BLOCK& result);

}  // namespace machine
