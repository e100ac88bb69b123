// SPDX-License-Identifier: MIT
#include "station/status_output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "programs/replace_file.h"

namespace station {

void StatusView::show(const StationStatus& status)
{
    if (!isatty(STDOUT_FILENO)) {
        std::printf("%s\n", status_line(status).c_str());
        std::fflush(stdout);
        return;
    }
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const char* const plain = std::getenv("NO_COLOR");
    const std::string table =
        table_.draw(status, size.ws_col != 0 ? size.ws_col : 80, plain == nullptr || *plain == '\0');
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
