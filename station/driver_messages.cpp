// SPDX-License-Identifier: MIT
#include "station/driver_messages.h"

#include <cstdio>

namespace station {

void follow_driver_message(const std::string& text, AllLunStatistics& luns)
{
    thread_local unsigned last_lun = formats::disk_count_max;

    unsigned worker, lun;
    if (std::sscanf(text.c_str(), "\nQRN SCSI: Time Out: %x %u", &worker, &lun) == 2) {
        last_lun = lun;
        if (lun < luns.size())
            ++luns[lun].time_outs;
        return;
    }
    if (last_lun >= luns.size())
        return;
    if (text.find("Main Server Error, Try Use Slave") != std::string::npos)
        luns[last_lun].server = LunStatistics::Server::slave;
    else if (text.find("Slave Server Error") != std::string::npos)
        luns[last_lun].server = LunStatistics::Server::main_alone;
}

}  // namespace station
