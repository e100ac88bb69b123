// SPDX-License-Identifier: MIT
// What qrn-image can do. Each reports what it did and returns the exit status; all throw ToolError.
#pragma once

#include <string>

#include "tools/disk_contents.h"
#include "tools/options.h"
#include "tools/report.h"

namespace image_tool {

int make_disk(const Options& options, Report& report);
int resize_disk(const Options& options, Report& report);
int create_area(const Options& options, Report& report);
int update_area(const Options& options, Report& report);
int extract_disk(const Options& options, Report& report);
int convert_disk(const Options& options, Report& report);
int measure_area(const Options& options, Report& report);
int show_info(const Options& options, Report& report);
int show_map(const Options& options, Report& report);
int check_area(const Options& options, Report& report);
int repair_area(const Options& options, Report& report);
int compare_disks(const Options& options, Report& report);

// What `create`, `extract` and `convert` share. `from` names the disk.
int write_area(const DiskContents& disk, const std::string& from, const std::string& to,
               const Options& options, Report& report);
int write_raw(const DiskContents& disk, const std::string& from, const std::string& to,
              const Options& options, Report& report);

}  // namespace image_tool
