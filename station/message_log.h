// SPDX-License-Identifier: MIT
// The file that receives every debug message of the driver: one line each, with the time of day.
// write() is called by any thread of the driver, at up to DISPATCH_LEVEL.
#pragma once

#include <string>

#include "programs/log.h"

namespace station {

// A message as one line: without the line breaks it begins or ends with, control characters (some messages
// repeat text of a server) as blanks.
std::string message_line(const std::string& message);

class MessageLog {
public:
    // Appends to the file, or creates it. Throws std::system_error.
    explicit MessageLog(const std::string& path) : file_(path) {}
    void write(const std::string& message) { file_.write(message_line(message)); }

private:
    programs::LogFile file_;
};

}  // namespace station
