// SPDX-License-Identifier: MIT
// What the driver's patience allows in one start, told from the plan and from when which server could not be
// reached: never from what the driver says of itself. One lost server of a mirror excuses nothing, reads of
// LUN 0 never fail in a network boot, and a retry limit excuses only what was under way when it came.
//
// All times are the machine's, in milliseconds. Called by the simulated thread that runs.
#pragma once

#include <cstdint>
#include <vector>

#include "campaign/plan.h"

namespace campaign {

enum class ServerName { main, slave };

class Patience {
public:
    explicit Patience(const Plan& plan) : plan_(plan) {}

    static constexpr unsigned all_luns = ~0u;

    // lun: when the server is silent on this one alone.
    void away(ServerName server, std::int64_t begin_ms, std::int64_t end_ms, unsigned lun = all_luns);
    void bad_network(std::int64_t begin_ms, std::int64_t end_ms);
    void retry_limit(std::int64_t at_ms) { limits_ms_.push_back(at_ms); }
    // A setting may not have been read in this start.
    void settings_unread() { settings_unread_ = true; }
    // Everything is well from now on.
    void all_well(std::int64_t now_ms);

    // Whether a request of this LUN may fail now. since_ms: when the oldest began that waits with it.
    // write_waits: one of them is a write.
    bool may_fail(unsigned lun, bool write_waits, std::int64_t since_ms, std::int64_t now_ms) const;
    // Whether a packet of this LUN may have had all the time-outs that are left to it in a shutdown.
    bool may_end_in_shutdown(unsigned lun, std::int64_t shutdown_ms, std::int64_t now_ms) const;
    // Whether a mirrored disk may have left its main server, or given up its slave.
    bool may_leave(unsigned lun, ServerName server, std::int64_t now_ms) const;
    // Whether a packet of this LUN to this server may have timed out between the two.
    bool may_miss(unsigned lun, ServerName server, std::int64_t from_ms, std::int64_t to_ms) const;

private:
    struct Interval {
        std::int64_t begin_ms, end_ms;
        unsigned lun = all_luns;
    };
    using Intervals = std::vector<Interval>;

    // How many time-outs of a packet that goes to this server fit between the two.
    std::int64_t time_outs(unsigned lun, ServerName server, std::int64_t from_ms, std::int64_t to_ms) const;
    std::int64_t hot_retries() const;
    bool limit_reached(unsigned lun, std::int64_t since_ms, std::int64_t now_ms) const;

    const Plan& plan_;
    Intervals away_[2], bad_network_;
    std::vector<std::int64_t> limits_ms_;
    bool settings_unread_ = false;
};

}  // namespace campaign
