// SPDX-License-Identifier: MIT
// The order in which spin locks are taken while others are held, over the whole run. An order that is
// seen both ways round, directly or over other locks, is a deadlock waiting for its schedule.
#pragma once

#include <cstddef>
#include <cstdint>

namespace machine {

// lock is about to be taken while held is held. Cheap when the pair was seen before. A violation when
// the new order closes a circle.
void note_lock_order(const volatile void* held, const volatile void* lock);

// The locks in this memory are no more: the next ones at their place have an order of their own.
void forget_lock_order(const void* memory, std::size_t bytes);
void forget_lock_order();

}  // namespace machine
