// SPDX-License-Identifier: MIT
// The configuration file of a server for many workstations: images, groups, workstations, and who may talk to
// it. Reading it touches nothing but the text.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/addresses.h"

namespace server {

enum class DiskMode {
    overlay,    // of an image that nobody writes to; writes go to the workstation's own file
    readonly,   // writes are dropped
    exclusive,  // one workstation at a time writes to the file itself
};
enum class SyncMode { none, interval, always };

struct FleetDisk {
    std::string image;
    DiskMode mode = DiskMode::overlay;
    bool keep = false;  // an overlay: over the next boot
    SyncMode sync = SyncMode::none;
    unsigned sync_seconds = 5;
    std::optional<std::uint32_t> id;
    unsigned read_kb = 16, write_kb = 16, slots = 4, retry_mins = 0, cache_mb = 0;
    std::optional<formats::ServerRecord> mirror;
    bool delay_load = false;

    bool operator==(const FleetDisk& other) const;
};

struct FleetImage {
    std::string name;
    std::string path;  // a file, a block device, or the URI of an NBD server
    std::string area;  // of which workstations make local copies; empty: none
    unsigned line;     // of the configuration file
};

struct FleetGroup {
    std::string name;
    std::vector<FleetDisk> disks;
    unsigned limit_mb_s = 0;  // of each of its workstations; 0: none
};

struct FleetWorkstation {
    std::string name;
    HardwareAddress hardware;
    std::string group;  // empty: disks of its own
    std::vector<FleetDisk> disks;
    unsigned limit_mb_s = 0;  // 0: its group's
};

enum class UnknownPolicy { refuse, wait, serve };

struct FleetConfig {
    formats::ServerRecord listen{};
    std::optional<formats::ServerRecord> advertise;
    std::string state;    // folder of the server's own: overlays, and what it must know after a restart
    std::string control;  // path of the control socket; empty: none
    std::optional<formats::ServerRecord> http;
    std::string stats_json;
    unsigned threads = 1;  // that receive
    std::vector<Network> allow;

    UnknownPolicy unknown = UnknownPolicy::refuse;
    std::string unknown_group;

    std::vector<FleetImage> images;
    std::vector<FleetGroup> groups;
    std::vector<FleetWorkstation> workstations;

    const FleetImage* image(const std::string& name) const;
    const FleetGroup* group(const std::string& name) const;
};

// One line for each fault: FILE:LINE: what is wrong and what is expected.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// `file` is for messages. Throws ConfigError.
FleetConfig parse_fleet_config(const std::string& text, const std::string& file);
// Throws std::system_error when it cannot be read.
FleetConfig read_fleet_config(const std::string& file);

// Opens every image for reading. Throws ConfigError for those that cannot be served.
void check_fleet_images(const FleetConfig& config, const std::string& file);

// Letters, digits, dots, dashes and underscores, at most 48, no dot first: parts of file names.
bool fleet_name_valid(std::string_view name);
bool is_nbd_uri(std::string_view path);

}  // namespace server
