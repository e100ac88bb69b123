// SPDX-License-Identifier: MIT
// Brings the plan's faults about while a start runs, ends them when their time is over, and remembers them:
// they say which requests may fail, and which servers may be left.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "campaign/load.h"
#include "campaign/patience.h"
#include "campaign/workstation.h"

namespace campaign {

// Which of a mirrored disk's servers must have all that was written.
enum class Kept { both, main, slave, either };

class FaultSchedule : public Excuses {
public:
    explicit FaultSchedule(Workstation& station);

    // Before the driver is loaded.
    void prepare_boot();
    // Waits until that time, which counts from the first call on, and brings about what is due before.
    void run_until(std::int64_t end_ms);
    // All faults are over, servers are back.
    void heal();
    void shutdown_begins();
    // A check kept both servers away from the workstation.
    void servers_away(std::int64_t begin_ms, std::int64_t end_ms);

    // Called once when the main server can no longer be relied on in this start.
    std::function<void()> on_main_lost;

    bool over() const { return active_.empty(); }

    bool may_fail(unsigned lun, bool write_waits, std::int64_t since_ms) override;
    // At the end of the start.
    Kept kept(unsigned lun) const;
    // Something in the machine's own memory or on its local disk failed in this start.
    bool weakened() const { return weakened_; }
    bool shutdown_may_reset() const { return shutdown_; }

private:
    struct Active {
        Fault fault;
        std::int64_t end_ms;
    };

    void begin(const Fault& fault);
    void end(const Fault& fault);
    void remember(const Fault& fault);
    void main_lost();
    void begin_machine_fault(const Fault& fault);
    void begin_local_fault(const Fault& fault);
    void crash(BlockServer& server, bool losing, double strength);
    void lose_writes(BlockServer& server, double strength);
    std::int64_t next_event_ms() const;

    Workstation& station_;
    std::int64_t origin_ms_ = -1;  // of the plan's times
    std::size_t next_ = 0;
    std::vector<Active> active_;
    Patience patience_;
    bool shutdown_ = false;
    std::int64_t shutdown_ms_ = 0;
    bool weakened_ = false;
    std::int64_t local_fault_ms_ = INT64_MAX;  // since when the local disk may fail requests
};

}  // namespace campaign
