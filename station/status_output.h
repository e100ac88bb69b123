// SPDX-License-Identifier: MIT
// Puts the station's figures where they were asked for: a live table on the terminal (a line a second
// when the output is none), and the statistics file. Used by the main thread.
#pragma once

#include <string>

#include "station/live_table.h"
#include "station/station_status.h"

namespace station {

class StatusView {
public:
    void show(const StationStatus& status);

private:
    LiveTable table_;
    unsigned lines_ = 0;  // of the table on the screen, below which the cursor stands
};

// Replaces the file at once, so that a reader never sees half of it. Throws std::system_error.
void write_statistics_file(const std::string& path, const StationStatus& status);

}  // namespace station
