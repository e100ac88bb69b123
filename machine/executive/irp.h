// SPDX-License-Identifier: MIT
// IRPs that the executive itself makes and finishes.
#pragma once

#include <nt.h>

namespace machine {

// IRP::AllocationFlags: the executive frees the IRP when its completion has run to the end.
constexpr UCHAR irp_is_ours = 0x40;

PIRP new_irp(CCHAR stack_size);
void free_irp(PIRP irp);

// Frees the list that describes the buffer of a finished read or write, if it has one.
void free_transfer_list(IRP& irp, const IO_STATUS_BLOCK& result);

// The completion routines have all run: hands the results to the requester and frees the IRP.
void finish_irp(PIRP irp);

}  // namespace machine
