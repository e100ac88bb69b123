// SPDX-License-Identifier: MIT
// How an image area is named on the command line, and where it lies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/file.h"

namespace image_tool {

// FILE, FILE:system, FILE:temporary or FILE:1 to FILE:4. A file that has just this name comes first.
struct AreaName {
    explicit AreaName(const std::string& text);

    std::string text;
    std::string path;
    std::string partition;  // empty: the file is the area
};

// Where an area lies in its file.
struct AreaPlace {
    std::uint64_t start_bytes = 0;
    std::uint64_t size_bytes = 0;
    unsigned partition = 0;  // from 1; 0: the whole file
    std::uint8_t type = 0;
};

// Throws ToolError when there is no such partition or it does not fit the disk.
AreaPlace find_area(const InputFile& file, const AreaName& name);

}  // namespace image_tool
