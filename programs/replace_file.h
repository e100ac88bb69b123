// SPDX-License-Identifier: MIT
// Files that programs write for others to read while they run. From any thread.
#pragma once

#include <span>
#include <string>

namespace programs {

// Readers see the old content or the new one, never a part. A link stays and what it names is replaced; what
// is no regular file (a pipe, a device) is written into as it is, and a pipe that nobody reads is an error.
// Throws std::system_error.
void replace_file(const std::string& path, std::span<const char> content);

}  // namespace programs
