// SPDX-License-Identifier: MIT
// What the port driver and the class driver above it are like. Set before the machine is constructed,
// unchanged from then on.
#pragma once

#include "machine/scheduler/scheduler.h"

namespace machine {

// How the port driver feeds a LUN with more than one request, after NextRequest. Real ones tend to the
// second.
enum class Feeding {
    eager,      // as many as there are
    held_back,  // one, and the next when an SRB of that LUN completes, one without data or of the miniport's
                // own included
};

struct PortConfig {
    Feeding feeding = Feeding::eager;
    // The class driver looks closely at each LUN of a bus scan: vital product data, mode pages, the first
    // sector, with repeats of what is refused. Off, it asks for identity and size alone.
    bool curious_class_driver = false;
    // A bus scan ends at the first LUN where nobody answers, as it does on adapters whose LUNs leave no gaps.
    bool scan_stops_at_gap = false;
    // Transfers beyond the adapter's limit, and such without a buffer, are refused before the miniport sees
    // them. Off, they are sent down as they came.
    bool checks_transfers = true;
    // How long nothing goes down to the miniport after its HwResetBus, its own notices included.
    Ticks reset_hold_100ns = 4 * ticks_per_second;
    // An SRB that runs out of its time resets the bus. Off, it is a violation: of a miniport that keeps time
    // itself.
    bool srbs_may_time_out = true;
    // The miniport finds the data of a transfer in pages of the port driver's own, which are out of reach
    // once it has completed the SRB. Costs two copies and two changes of the address space for each transfer.
    bool takes_buffers_away = true;
};

}  // namespace machine
