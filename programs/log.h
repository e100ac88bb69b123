// SPDX-License-Identifier: MIT
// What programs tell whoever runs them, a line each. From any thread.
#pragma once

#include <memory>
#include <string>

namespace programs {

enum class LogLevel { info, notice, warning, error };

// Whose messages they are. Called by main before the first of them.
void name_log(const std::string& program);

// On standard error: "PROGRAM: TEXT", with "warning: " before the text of one. When that is the journal,
// which knows the program, the level goes before the text in the journal's own way instead.
void log(LogLevel level, const std::string& text);

// A file of lines, each with the time of day.
class LogFile {
public:
    // Appends to the file, or creates it. Throws std::system_error.
    explicit LogFile(const std::string& path);
    LogFile(LogFile&&) noexcept;
    ~LogFile();

    // Lines of different threads stay whole. A full disk loses lines, no more.
    void write(const std::string& line);

private:
    class Logger;
    std::unique_ptr<Logger> logger_;
};

}  // namespace programs
