// SPDX-License-Identifier: MIT
// System threads, for other parts of the executive.
#pragma once

#include "machine/scheduler/kernel_entry.h"
#include "machine/scheduler/thread.h"

namespace machine {

// How the schedulers get into kernel code. The same for all machines: threads that are parked keep it.
KernelEntry& kernel_entry();

// The thread has ended: waits on its object end. Implemented by the dispatcher.
void signal_thread_object(Thread& ended);

}  // namespace machine
