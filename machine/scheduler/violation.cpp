// SPDX-License-Identifier: MIT
#include "machine/scheduler/violation.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "machine/scheduler/kernel_scheduler.h"

namespace machine {
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

}  // namespace machine
