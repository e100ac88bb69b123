// SPDX-License-Identifier: MIT
// Paged pool. Its blocks are not in memory until a thread touches them below DISPATCH_LEVEL, and leave it
// again whenever some thread rises to that level: touching one there is a violation. Any thread may call.
#pragma once

#include <atomic>
#include <cstddef>

namespace machine {

// A block with its own pages, aligned to 8 bytes; null when the host has no memory left.
void* allocate_paged(std::size_t bytes);
// False when this is no paged block.
bool free_paged(void* block);
// The machine is off.
void free_all_paged();

// Whether some block may be in memory.
extern std::atomic<bool> paged_blocks_in_memory;
void page_out();

// A thread has reached DISPATCH_LEVEL.
inline void leave_paged_memory()
{
    if (paged_blocks_in_memory.load(std::memory_order_relaxed)) [[unlikely]]
        page_out();
}

}  // namespace machine
