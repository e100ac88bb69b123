// SPDX-License-Identifier: MIT
// How a command ends early. Messages are one line for the person who typed the command.
#pragma once

#include <stdexcept>

namespace image_tool {

// Exit status 2: wrong arguments, or a file that cannot be used as they say.
class ToolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Exit status 2 too: an area whose map or header leads nowhere. `check` lists such faults instead.
class DamagedArea : public ToolError {
public:
    using ToolError::ToolError;
};

}  // namespace image_tool
