// SPDX-License-Identifier: MIT
// How far a long command has come, on standard error when that is a terminal.
#pragma once

#include <cstdint>

namespace image_tool {

class Progress {
public:
    Progress(const char* what, std::uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Throws ToolError once a signal has asked the program to end, so that nothing half done is left.
    void at(std::uint64_t done);

private:
    const char* what_;
    std::uint64_t total_;
    std::uint64_t next_ms_;
    bool is_shown_;
    bool was_shown_ = false;
};

// From now on SIGINT and SIGTERM end the program at the next Progress::at().
void take_signals();

}  // namespace image_tool
