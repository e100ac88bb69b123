// SPDX-License-Identifier: MIT
#include "station/status_output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "programs/replace_file.h"

namespace station {

void StatusView::show(const StationStatus& status)
{
    if (!isatty(STDOUT_FILENO)) {
        std::printf("%s\n", status_line(status).c_str());
        std::fflush(stdout);
        return;
    }
    const std::string table = status_table(status);
    std::string text;
    if (lines_)
        text = "\x1b[" + std::to_string(lines_) + "A";
    text += "\r\x1b[J" + table;
    lines_ = static_cast<unsigned>(std::count(table.begin(), table.end(), '\n'));
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void write_statistics_file(const std::string& path, const StationStatus& status)
{
    programs::replace_file(path, status_json(status));
}

}  // namespace station
