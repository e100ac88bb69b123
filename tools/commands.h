// SPDX-License-Identifier: MIT
// What qrn-image can do. Each prints to the file and returns the exit status; all throw ToolError.
#pragma once

#include "tools/options.h"

namespace image_tool {

int make_disk(const Options& options, std::FILE* out);
int create_area(const Options& options, std::FILE* out);
int extract_disk(const Options& options, std::FILE* out);
int show_info(const Options& options, std::FILE* out);
int show_map(const Options& options, std::FILE* out);
int check_area(const Options& options, std::FILE* out);
int diff_disks(const Options& options, std::FILE* out);

}  // namespace image_tool
