// SPDX-License-Identifier: MIT
// Tells the service manager that started this program how it is, if one did and wants to know.
#pragma once

#include <cstdint>
#include <string>

namespace server {

// "READY=1", "WATCHDOG=1", "STOPPING=1", "STATUS=..."
void tell_service_manager(const std::string& state);

// How often it wants to hear WATCHDOG=1, in milliseconds; 0: never.
std::uint64_t watchdog_ms();

}  // namespace server
