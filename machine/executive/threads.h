// SPDX-License-Identifier: MIT
// System threads, for other parts of the executive.
#pragma once

#include "machine/scheduler/thread.h"

namespace machine {

// The thread has ended: waits on its object end. Implemented by the dispatcher.
void signal_thread_object(Thread& ended);

}  // namespace machine
