// SPDX-License-Identifier: MIT
// What stands behind ScsiPort: the adapter, the bus scan, and the class driver's state.
#pragma once

#include <atomic>

#include "machine/scsiport/adapter.h"
#include "machine/scsiport/bus_scan.h"
#include "machine/scsiport/scsi_port.h"

namespace machine {

struct ScsiPort::Internals {
    Internals(ScsiPort& port, const PortConfig& config) : adapter(config), scan(port, config)
    {
        adapter.on_bus_change = [this] { scan.request(); };
    }

    // Of the machine that is on: the miniport's calls name no port driver.
    static Internals& current();

    Adapter adapter;
    BusScan scan;
    std::atomic<bool> auto_release = true;
};

}  // namespace machine
