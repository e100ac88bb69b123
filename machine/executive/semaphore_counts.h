// SPDX-License-Identifier: MIT
// How far semaphores count, for those who look for releases that nobody takes.
#pragma once

#include <cstdint>

namespace machine {

// The highest count that a release left in any semaphore since the last call. Any thread may call this.
std::int32_t take_highest_semaphore_count();

}  // namespace machine
