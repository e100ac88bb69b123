// SPDX-License-Identifier: MIT
// A moment's figures of the whole station, and their two forms: a table for people and JSON for
// programs. No I/O.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "formats/cache_stats.h"
#include "machine/transport/link.h"
#include "station/lun_statistics.h"
#include "station/nbd_server.h"
#include "station/synchronisation.h"

namespace station {

struct LunStatus {
    unsigned lun;
    std::uint32_t sectors;  // size
    const LunStatistics* statistics;
    std::optional<formats::CacheStats> cache = {};  // when the disk has one
};

struct StationStatus {
    std::int64_t uptime_ms = 0;
    std::string driver;
    std::vector<LunStatus> luns;
    std::optional<SyncStatus> synchronisation;  // with a local disk
    machine::LinkCounters link;
    ServerCounters connections;
};

// The figures of a disk's cache, read from the words that the driver counts in at the same time. `all` is
// what the driver exports, null when it exports nothing.
std::optional<formats::CacheStats> cache_statistics(const void* all, unsigned lun);

// "main" and "slave", with "(no mirror)" once a mirrored write has given the slave up.
const char* server_name(LunStatistics::Server server);

// How far the local image is filled, in one line.
std::string synchronisation_text(const SyncStatus& sync);
// Several lines, each ended by a line break.
std::string status_table(const StationStatus& status);
// One line, without its end.
std::string status_line(const StationStatus& status);
std::string status_json(const StationStatus& status);

}  // namespace station
