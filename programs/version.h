// SPDX-License-Identifier: MIT
// What every program answers to --version.
#pragma once

#include <string>

namespace programs {

// "NAME 1.0.0", with the version of the whole project.
std::string version_line(const std::string& program);

}  // namespace programs
