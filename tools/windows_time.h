// SPDX-License-Identifier: MIT
// Times as image headers have them: 100 ns units since 1601, in local time.
#pragma once

#include <cstdint>
#include <string>

namespace image_tool {

std::uint64_t local_windows_time();

// "2026-01-31 12:00:00", or "never" for 0.
std::string time_text(std::uint64_t time);

}  // namespace image_tool
