// SPDX-License-Identifier: MIT
#include "station/message_log.h"

#include <algorithm>

namespace station {

std::string message_line(const std::string& message)
{
    const auto first = message.find_first_not_of("\r\n");
    if (first == std::string::npos)
        return {};
    const auto last = message.find_last_not_of("\r\n");
    std::string line = message.substr(first, last - first + 1);
    std::ranges::replace_if(
        line, [](char each) { return static_cast<unsigned char>(each) < 0x20 || each == 0x7f; }, ' ');
    return line;
}

}  // namespace station
