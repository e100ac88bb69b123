// SPDX-License-Identifier: MIT
#include "station/figures.h"

#include <cstdio>
#include <system_error>
#include <utility>

#include "programs/log.h"

namespace station {

void Figures::write()
{
    if (options_.stats_json)
        write_statistics_file(*options_.stats_json, now());
}

void Figures::write_or_tell()
{
    try {
        write();
    } catch (const std::system_error& error) {
        if (!std::exchange(failed_, true))
            programs::log(programs::LogLevel::error, "--stats-json: " + std::string(error.what()));
    }
}

void Figures::print_table()
{
    std::fputs(status_table(now()).c_str(), stdout);
}

bool Figures::filling_local_image()
{
    return options_.local_disk && synchronisation().state == SyncStatus::State::running;
}

SyncStatus Figures::synchronisation()
{
    return synchronisation_.status(driver_.exported("QRN_Sync_Stats"), machine_.now_ms());
}

StationStatus Figures::now()
{
    StationStatus status;
    status.uptime_ms = machine_.now_ms();
    status.driver = driver_.name();
    const void* const caches = driver_.exported("QRN_Cache_Stats");
    for (const machine::LunInfo& each : luns_.found())
        status.luns.push_back(
            {each.lun, each.sectors, &luns_.statistics()[each.lun], cache_statistics(caches, each.lun)});
    if (options_.local_disk)
        status.synchronisation = synchronisation();
    status.link = link_.counters();
    status.connections = server_.counters();
    return status;
}

}  // namespace station
