// SPDX-License-Identifier: MIT
// The LUNs that the driver shows, as exports. find() is called by one kernel thread at a time, the rest by
// any.
#pragma once

#include <mutex>
#include <vector>

#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "station/driver_messages.h"
#include "station/exports.h"
#include "station/options.h"

namespace station {

class ExportedLuns {
public:
    // The block is the one that the driver has.
    ExportedLuns(machine::Machine& machine, const Options& options, const formats::Boot_Param& block)
        : machine_(machine), options_(options), block_(block)
    {
    }

    // After every bus scan. A client keeps the disk it chose.
    void find();
    std::vector<machine::LunInfo> found() const;
    const Exports& exports() const { return exports_; }
    AllLunStatistics& statistics() { return statistics_; }
    const AllLunStatistics& statistics() const { return statistics_; }

private:
    bool in_ram_cache(unsigned lun) const;

    machine::Machine& machine_;
    const Options& options_;
    const formats::Boot_Param& block_;
    AllLunStatistics statistics_;
    Exports exports_;

    mutable std::mutex found_lock_;  // guards found_
    std::vector<machine::LunInfo> found_;
};

}  // namespace station
