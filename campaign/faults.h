// SPDX-License-Identifier: MIT
// Brings the plan's faults about while a start runs, ends them when their time is over, and remembers them:
// they say which requests may fail.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/load.h"
#include "campaign/workstation.h"

namespace campaign {

class FaultSchedule : public Excuses {
public:
    explicit FaultSchedule(Workstation& station) : station_(station) {}

    // Before the driver is loaded.
    void prepare_boot();
    // Waits until that time and brings about what is due before.
    void run_until(std::int64_t end_ms);
    // All faults are over, servers are back.
    void heal();
    void shutdown_begins() { shutdown_ = true; }

    bool over() const { return active_.empty(); }

    bool may_fail(std::int64_t began_ms) override;
    // Something in the machine's own memory or on its local disk failed in this start.
    bool weakened() const { return weakened_; }
    bool shutdown_may_reset() const { return shutdown_; }

private:
    struct Active {
        Fault fault;
        std::int64_t end_ms;
    };
    struct Away {
        std::int64_t begin_ms, end_ms;
    };

    void begin(const Fault& fault);
    void end(const Fault& fault);
    void begin_machine_fault(const Fault& fault);
    void begin_local_fault(const Fault& fault);
    void crash(BlockServer& server, bool losing, double strength);
    void lose_writes(BlockServer& server, double strength);
    std::int64_t next_event_ms() const;

    Workstation& station_;
    std::size_t next_ = 0;
    std::vector<Active> active_;
    std::vector<Away> away_;  // when a server could not be reached
    std::int64_t retry_limit_ms_ = -1;
    bool shutdown_ = false;
    bool weakened_ = false;
};

}  // namespace campaign
