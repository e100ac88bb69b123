// SPDX-License-Identifier: MIT
#include "server/log.h"

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

namespace server {

void log(LogLevel level, const std::string& text)
{
    static const bool to_journal = std::getenv("JOURNAL_STREAM") != nullptr;
    const char* const word = level == LogLevel::error     ? "error: "
                             : level == LogLevel::warning ? "warning: "
                                                          : "";
    const std::string line = to_journal ? fmt::format("<{}>{}\n", static_cast<int>(level), text)
                                        : fmt::format("qrn-server: {}{}\n", word, text);
    std::fputs(line.c_str(), stderr);
}

}  // namespace server
