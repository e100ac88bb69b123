// SPDX-License-Identifier: MIT
// System threads, for other parts of the executive and for the devices above it.
#pragma once

#include "machine/scheduler/kernel_entry.h"
#include "machine/scheduler/thread.h"

namespace machine {

// How the schedulers get into kernel code. The same for all machines: threads that are parked keep it.
KernelEntry& kernel_entry();

// Wakes who waits for what the calling thread released. Before a thread waits for the host: it must not keep
// others from their work meanwhile, on which the host's answer may depend. Implemented by the dispatcher.
void wake_waiters();

// The thread has ended: waits on its object end. Implemented by the dispatcher.
void signal_thread_object(Thread& ended);

}  // namespace machine
