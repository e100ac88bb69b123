// SPDX-License-Identifier: MIT
#include "station/message_log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace station {

std::string log_line(std::chrono::system_clock::time_point time, const std::string& message)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto since_epoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[40];
    std::size_t used = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + used, sizeof stamp - used, ".%03d ", static_cast<int>(since_epoch.count() % 1000));

    std::string line = stamp;
    const auto first = message.find_first_not_of("\r\n");
    if (first != std::string::npos) {
        const auto last = message.find_last_not_of("\r\n");
        for (const char each : message.substr(first, last - first + 1))
            line += static_cast<unsigned char>(each) < 0x20 || each == 0x7f ? ' ' : each;
    }
    line += '\n';
    return line;
}

MessageLog::MessageLog(const std::string& path)
    : file_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666))
{
    if (!file_)
        throw std::system_error(errno, std::generic_category(), path);
}

// One system call per line keeps lines of different threads whole. A full disk loses lines, no more.
void MessageLog::write(const std::string& message)
{
    const std::string line = log_line(std::chrono::system_clock::now(), message);
    [[maybe_unused]] const ssize_t written = ::write(file_.get(), line.data(), line.size());
}

}  // namespace station
