// SPDX-License-Identifier: MIT
// The file that receives every debug message of the driver: one line each, with the time of day.
// write() is called by any thread of the driver, at up to DISPATCH_LEVEL.
#pragma once

#include <chrono>
#include <string>

#include "station/unique_fd.h"

namespace station {

// The line of a message: without the line breaks it begins or ends with, control characters (some
// messages repeat text of a server) as blanks.
std::string log_line(std::chrono::system_clock::time_point time, const std::string& message);

class MessageLog {
public:
    // Appends to the file, or creates it. Throws std::system_error.
    explicit MessageLog(const std::string& path);
    void write(const std::string& message);

private:
    UniqueFd file_;
};

}  // namespace station
