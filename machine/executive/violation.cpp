// SPDX-License-Identifier: MIT
#include <cstdio>
#include <cstdlib>
#include <string>

#include "machine/executive/checks.h"
#include "machine/machine.h"

namespace machine {

bool strict_checks = true;

namespace {

std::function<void(const std::string&)> handler;

// Who broke the rule and when.
std::string place()
{
    KernelScheduler* active = active_scheduler.load();
    if (!active)
        return "";
    char text[64];
    std::snprintf(text, sizeof text, "\" at %.7f s", static_cast<double>(active->now()) / ticks_per_second);
    const Thread* thread = this_thread;
    return " [thread \"" + (thread ? thread->name : "none") + text + "]";
}

}  // namespace

void violation(const std::string& message)
{
    const std::string text = message + place();
    if (handler)
        handler(text);
    std::fprintf(stderr, "machine: rule broken: %s\n", text.c_str());
    std::abort();
}

void set_violation_handler(std::function<void(const std::string&)> new_handler)
{
    handler = std::move(new_handler);
}

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
