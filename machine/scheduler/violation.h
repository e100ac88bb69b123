// SPDX-License-Identifier: MIT
// What all of the machine says when a rule of the kernel's interface is broken. Any thread, any IRQL.
#pragma once

#include <functional>
#include <string>

namespace machine {

// Prints the message with the thread and the time and stops the process (abort), unless a test has installed
// a handler, which must not return.
[[noreturn]] void violation(const std::string& message);
void set_violation_handler(std::function<void(const std::string&)> handler);

}  // namespace machine
