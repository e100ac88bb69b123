// SPDX-License-Identifier: MIT
#include "station/status_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "station/unique_fd.h"

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
    const std::string fresh = path + ".new";
    const std::string text = status_json(status);
    const UniqueFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        rename(fresh.c_str(), path.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace station
