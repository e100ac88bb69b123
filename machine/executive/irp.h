// IRPs that the executive itself makes and finishes.
#pragma once

#include <nt.h>

namespace machine {

// IRP::AllocationFlags: the executive frees the IRP when its completion has run to the end.
constexpr UCHAR irp_is_ours = 0x40;

PIRP new_irp(CCHAR stack_size);
void free_irp(PIRP irp);

// The completion routines have all run: hands the results to the requester and frees the IRP.
void finish_irp(PIRP irp);

}  // namespace machine
