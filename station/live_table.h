// SPDX-License-Identifier: MIT
// The station's figures as a table that fits a terminal: rates since the table before, percentiles of answer
// times, and disks whose server has fallen silent. No I/O.
#pragma once

#include <array>
#include <string>

#include "station/station_status.h"

namespace station {

class LiveTable {
public:
    // Lines of at most so many columns, each ended by a line break. Colours are escape sequences and take no
    // column.
    std::string draw(const StationStatus& status, unsigned columns, bool colours);

private:
    struct Sample {
        std::uint64_t reads = 0, writes = 0, sectors_read = 0, sectors_written = 0;
        AnswerTimes::Counts times{};
    };

    std::string row(const LunStatus& lun, double seconds, unsigned columns, bool colours);

    std::int64_t last_ms_ = 0;
    std::array<Sample, formats::disk_count_max> last_{};
};

}  // namespace station
