// SPDX-License-Identifier: MIT
// The command line of qrn-station.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "formats/boot_block.h"
#include "station/nbd_address.h"

namespace station {

enum class Handover { low_memory, transport };

struct Options {
    formats::Boot_Param boot_block{};
    std::vector<std::uint8_t> low_memory;  // of a PC, with the record that its boot program left; empty: none
    Handover handover = Handover::low_memory;
    NbdAddress nbd;
    std::string driver = "builtin";
    bool feed_eagerly = false;
    std::vector<std::pair<std::string, std::uint32_t>> settings;
    std::uint32_t memory_mb = 512;
    std::uint32_t above_4g_mb = 0;
    std::optional<std::string> log;
    std::optional<std::string> stats_json;
    std::optional<std::string> capture;
    std::optional<std::string> local_disk;
    std::array<bool, formats::disk_count_max> read_only{};  // LUNs that clients may not write to
    bool status = false;
};

// Something on the command line is wrong, or impossible; one line.
struct OptionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nothing when --help was asked for and printed. Throws OptionError.
std::optional<Options> parse_options(int argc, char** argv);

}  // namespace station
