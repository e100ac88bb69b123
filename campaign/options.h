// SPDX-License-Identifier: MIT
// The command line of qrn-campaign.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "campaign/canary.h"

namespace campaign {

struct Options {
    std::uint64_t first_seed = 1;
    std::optional<std::uint64_t> seeds;  // how many; without: as many as the time allows
    double minutes = 0;                  // 0: no limit
    std::string driver = "builtin";
    unsigned jobs = 2;
    unsigned seed_timeout_s = 120;
    bool seed_log = false;
    std::string capture;            // a file for all packets; empty: none
    std::string expected_finding;   // alternatives with a '|' between; empty: no seed may fail
    std::uint64_t seeds_least = 0;  // that a limit of minutes must leave time for
    unsigned kinds_least = 0;       // of the coverage's list that must be met
    double uptime_days = 0;         // 0: starts as the seed draws them
    bool plain_atomics = false;     // no thread switches at atomic operations, as with a driver file
    CanaryKind canary = CanaryKind::none;
};

class OptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Nothing when help was asked for and printed. Throws OptionError.
std::optional<Options> parse_options(int argc, const char* const* argv);

// The arguments, but for the seeds, that run a seed once more in the same way.
std::string replay_arguments(const Options& options);

}  // namespace campaign
