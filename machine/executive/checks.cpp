// SPDX-License-Identifier: MIT
#include "machine/executive/checks.h"

#include <string>

namespace machine {

bool strict_checks = true;

void irql_violation(const char* routine, KIRQL allowed)
{
    violation(std::string(routine) + " at IRQL " + std::to_string(this_thread ? this_thread->irql : 0) +
              ", allowed up to " + std::to_string(allowed));
}

void check_no_lock_held(const Thread& thread, const char* when)
{
    if (thread.held_count)
        violation(std::string("a spin lock is held ") + when);
}

}  // namespace machine
