// SPDX-License-Identifier: MIT
// Follows what the driver says about its disks: time-outs, and the server in use. The driver keeps
// these numbers to itself but for a server's poll; its debug messages tell them just as well, and that
// of a loaded driver file too.
#pragma once

#include <array>
#include <map>
#include <mutex>
#include <string>

#include "formats/boot_block.h"
#include "station/lun_statistics.h"

namespace station {

using AllLunStatistics = std::array<LunStatistics, formats::disk_count_max>;

class DriverMessages {
public:
    explicit DriverMessages(AllLunStatistics& luns) : luns_(luns) {}

    // One message, of that kernel thread: a change of servers is told right after the time-out that led to
    // it, without naming the disk again.
    void follow(const std::string& text, const void* thread);

private:
    AllLunStatistics& luns_;
    std::mutex lock_;
    std::map<const void*, unsigned> last_lun_;  // that the thread named, of those that there are
};

}  // namespace station
