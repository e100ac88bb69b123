// SPDX-License-Identifier: MIT
#include "campaign/patience.h"

#include <algorithm>

namespace campaign {
namespace {

// A time-out is a wait of 55 or 110 ms and one of a second; a wait ends on a tick of the clock, which may
// tell up to a tick less than it is.
constexpr std::int64_t time_out_ms = 1055 - 2 * 16;
// What was sent while a fault lasted times out after it.
constexpr std::int64_t echo_ms = 1200;
// The network's own small loss may add so many.
constexpr std::int64_t stray_time_outs = 3;

constexpr std::int64_t retries_per_minute = 60;
constexpr std::int64_t default_hot_retries = 21;
constexpr std::int64_t limited_time_outs = 4;  // that are left after the server's limit
constexpr std::int64_t on_the_way_ms = 200;    // what a retry limit takes at most

std::size_t index(ServerName server)
{
    return server == ServerName::main ? 0 : 1;
}

}  // namespace

void Patience::away(ServerName server, std::int64_t begin_ms, std::int64_t end_ms, unsigned lun)
{
    away_[index(server)].push_back({begin_ms, end_ms, lun});
}

void Patience::bad_network(std::int64_t begin_ms, std::int64_t end_ms)
{
    bad_network_.push_back({begin_ms, end_ms});
}

void Patience::all_well(std::int64_t now_ms)
{
    for (Intervals* intervals : {&away_[0], &away_[1], &bad_network_})
        for (Interval& interval : *intervals)
            interval.end_ms = std::min(interval.end_ms, now_ms);
}

std::int64_t Patience::time_outs(unsigned lun, ServerName server, std::int64_t from_ms,
                                 std::int64_t to_ms) const
{
    Intervals all = away_[index(server)];
    all.insert(all.end(), bad_network_.begin(), bad_network_.end());
    std::ranges::sort(all, {}, &Interval::begin_ms);
    std::int64_t bad_ms = 0, seen_ms = from_ms;
    for (const Interval& interval : all) {
        if (interval.lun != all_luns && interval.lun != lun)
            continue;
        const std::int64_t begin_ms = std::max(interval.begin_ms, seen_ms);
        const std::int64_t end_ms = std::min(interval.end_ms + echo_ms, to_ms);
        bad_ms += std::max<std::int64_t>(0, end_ms - begin_ms);
        seen_ms = std::max(seen_ms, end_ms);
    }
    return bad_ms / time_out_ms + (plan_.network.loss > 0 ? stray_time_outs : 0);
}

std::int64_t Patience::hot_retries() const
{
    const auto setting = plan_.settings.find("HOT_RETRYS");
    if (setting == plan_.settings.end())
        return default_hot_retries;
    return settings_unread_ ? std::min<std::int64_t>(setting->second, default_hot_retries) : setting->second;
}

bool Patience::may_leave(unsigned lun, ServerName server, std::int64_t now_ms) const
{
    return plan_.disks[lun].mirrored && time_outs(lun, server, 0, now_ms) > hot_retries();
}

bool Patience::may_miss(unsigned lun, ServerName server, std::int64_t from_ms, std::int64_t to_ms) const
{
    return time_outs(lun, server, from_ms, to_ms) > 0;
}

bool Patience::may_end_in_shutdown(unsigned lun, std::int64_t shutdown_ms, std::int64_t now_ms) const
{
    std::int64_t most = time_outs(lun, ServerName::main, shutdown_ms, now_ms);
    if (plan_.disks[lun].mirrored)
        most = std::max(most, time_outs(lun, ServerName::slave, shutdown_ms, now_ms));
    return most >= limited_time_outs - 1;
}

bool Patience::limit_reached(unsigned lun, std::int64_t since_ms, std::int64_t now_ms) const
{
    return std::ranges::any_of(limits_ms_, [&](std::int64_t limit_ms) {
        if (since_ms > limit_ms + on_the_way_ms)
            return false;
        std::int64_t most = time_outs(lun, ServerName::main, limit_ms, now_ms);
        if (plan_.disks[lun].mirrored)
            most = std::max(most, time_outs(lun, ServerName::slave, limit_ms, now_ms));
        return most >= limited_time_outs;
    });
}

bool Patience::may_fail(unsigned lun, bool write_waits, std::int64_t since_ms, std::int64_t now_ms) const
{
    const DiskPlan& disk = plan_.disks[lun];
    const bool system_disk = lun == 0;
    // What a cache writes back it may have tried for longer than any request waits.
    const std::int64_t from_ms = disk.ram_cache() ? 0 : since_ms;
    if (system_disk && plan_.boot_mode == formats::boot_mode_network && !write_waits && !disk.ram_cache())
        return false;
    if (limit_reached(lun, from_ms, now_ms))
        return true;
    if (disk.retry_mins == 0)
        return false;
    const std::int64_t budget = retries_per_minute * disk.retry_mins;
    const std::int64_t of_main = time_outs(lun, ServerName::main, from_ms, now_ms);
    if (!disk.mirrored)
        return of_main >= budget;
    const std::int64_t of_slave = time_outs(lun, ServerName::slave, from_ms, now_ms);
    const bool alone_with_slave = may_leave(lun, ServerName::main, now_ms);
    const bool alone_with_main = may_leave(lun, ServerName::slave, now_ms);
    return (alone_with_slave && of_slave >= budget - hot_retries() - 1) ||
           (alone_with_main && of_main >= budget);
}

}  // namespace campaign
