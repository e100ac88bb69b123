// SPDX-License-Identifier: MIT
#include "tools/windows_time.h"

#include <time.h>

#include <fmt/format.h>

namespace image_tool {

namespace {

constexpr std::int64_t units_per_s = 10'000'000;
constexpr std::int64_t s_from_1601_to_1970 = 11'644'473'600;

}  // namespace

std::uint64_t local_windows_time()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    return static_cast<std::uint64_t>((now.tv_sec + local.tm_gmtoff + s_from_1601_to_1970) * units_per_s +
                                      now.tv_nsec / 100);
}

std::string time_text(std::uint64_t time)
{
    if (time == 0)
        return "never";
    const time_t seconds = static_cast<time_t>(time / units_per_s) - s_from_1601_to_1970;
    tm parts;
    if (gmtime_r(&seconds, &parts) == nullptr)
        return fmt::format("{:016X}", time);
    return fmt::format("{}-{:02}-{:02} {:02}:{:02}:{:02}", parts.tm_year + 1900L, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

}  // namespace image_tool
