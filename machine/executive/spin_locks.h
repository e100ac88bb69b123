// SPDX-License-Identifier: MIT
// Spin locks, for the routines that drivers call and for the executive's own lists.
#pragma once

#include <nt.h>

#include "machine/scheduler/thread.h"

namespace machine {

// The word of a free lock is 0, of a held one the address of its owner. The IRQL is the caller's matter;
// old_irql is what the release is expected to return to.
void take_spin_lock(Thread& thread, PKSPIN_LOCK lock, KIRQL old_irql);
// A violation (strict checks only) unless the thread holds the lock and took it with this old_irql.
void give_spin_lock(Thread& thread, PKSPIN_LOCK lock, KIRQL new_irql);

}  // namespace machine
