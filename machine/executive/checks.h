// SPDX-License-Identifier: MIT
// The rules that kernel routines check on entry.
#pragma once

#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/violation.h"

namespace machine {

// Whether the checks that cost something are made. Set by the machine's configuration.
extern bool strict_checks;

[[noreturn]] void irql_violation(const char* routine, KIRQL allowed);

// The calling context, which must be at this IRQL or below.
inline Thread& enter_at_most(KIRQL allowed, const char* routine)
{
    Thread& thread = self();
    if (thread.irql > allowed) [[unlikely]]
        irql_violation(routine, allowed);
    return thread;
}

// The checks of a thread or callback that ends, or of a thread that is about to wait.
void check_no_lock_held(const Thread& thread, const char* when);

}  // namespace machine
