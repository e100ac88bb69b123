// SPDX-License-Identifier: MIT
// What the server tells its administrator: lines on standard error, with the journal's level marks when that
// is where they go. Any thread.
#pragma once

#include <string>

namespace server {

enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6 };

void log(LogLevel level, const std::string& text);

}  // namespace server
