// SPDX-License-Identifier: MIT
// Memory of IRPs.
#pragma once

#include <nt.h>

namespace machine {

// So many bytes more lie behind the last stack location, and are zeros. Null when there is no memory.
PIRP new_irp(CCHAR stack_size, std::size_t more_bytes = 0);
void free_irp(PIRP irp);

}  // namespace machine
