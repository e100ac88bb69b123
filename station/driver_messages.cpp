// SPDX-License-Identifier: MIT
#include "station/driver_messages.h"

#include <cstdio>

namespace station {

void DriverMessages::follow(const std::string& text, const void* thread)
{
    std::lock_guard guard(lock_);
    unsigned worker, lun;
    if (std::sscanf(text.c_str(), "\nQRN SCSI: Time Out: %x %u", &worker, &lun) == 2) {
        if (lun >= luns_.size()) {
            last_lun_.erase(thread);
            return;
        }
        last_lun_[thread] = lun;
        ++luns_[lun].time_outs;
        return;
    }
    const auto last = last_lun_.find(thread);
    if (last == last_lun_.end())
        return;
    if (text.find("Main Server Error, Try Use Slave") != std::string::npos)
        luns_[last->second].server = LunStatistics::Server::slave;
    else if (text.find("Slave Server Error") != std::string::npos)
        luns_[last->second].server = LunStatistics::Server::main_alone;
}

}  // namespace station
