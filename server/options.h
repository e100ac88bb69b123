// SPDX-License-Identifier: MIT
// The command line of qrn-server.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "formats/boot_block.h"
#include "server/addresses.h"

namespace server {

struct ServedDisk {
    std::string path;
    std::uint8_t id[4];
    unsigned read_kb = 16;
    unsigned write_kb = 16;
    unsigned slots = 4;
    unsigned retry_mins = 1;
    std::optional<formats::ServerRecord> mirror;
    bool delay_load = false;
    bool readonly = false;
    std::string image_path;  // area of which workstations make local copies; empty: none
    unsigned cache_mb = 0;   // RAM cache at the workstation; 0: none
};

struct Options {
    std::string config_path;  // of a server for many workstations; nothing else but check_only counts then
    bool check_only = false;
    formats::ServerRecord listen;
    std::optional<formats::ServerRecord> advertise;  // only its address counts
    std::vector<Network> allow;                      // who is heard
    std::vector<ServedDisk> disks;
    std::string boot_block_path;  // empty: none
    std::string stats_json_path;
    unsigned poll_interval_s = 0;
};

// The message is one line for the person who typed the command.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Nothing when only help was asked for, which is then printed. Throws UsageError.
std::optional<Options> parse_options(int argc, const char* const* argv);

}  // namespace server
