// SPDX-License-Identifier: MIT
#include "campaign/options.h"

#include <iostream>
#include <map>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include <fmt/format.h>

#include "programs/version.h"

namespace campaign {
namespace {

constexpr char description[] =
    "Hunts faults of the driver in simulated time: every seed draws a workstation, its servers, a load and\n"
    "faults, runs them, and holds each block that is read against what was written.";

constexpr char footer[] = R"(
A seed that fails is printed with what it drew, the driver's last messages, and the command that runs it
again to the same event. "events" at the end of a seed's log is a number over all its packets and requests,
the same whenever the seed runs with the same program.

Exit status: 0 no seed failed (with --canary or --expect-failure: one did, as expected), 1 otherwise, 2 wrong
arguments.
)";

const std::map<std::string, CanaryKind> canaries{{"lost-write", CanaryKind::lost_write},
                                                 {"other-answer", CanaryKind::other_answer},
                                                 {"deaf", CanaryKind::deaf}};

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv)
{
    Options options;
    CLI::App app(description, "qrn-campaign");
    app.set_version_flag("--version", programs::version_line("qrn-campaign"), "Print the version");
    app.footer(footer);
    std::uint64_t seeds = 0;
    app.add_option("--seeds", seeds, "Run so many seeds")->check(CLI::Range(1u, 1'000'000'000u));
    app.add_option("--minutes", options.minutes, "Begin no seed after so many minutes")
        ->check(CLI::Range(0.01, 100'000.0));
    app.add_option("--first-seed", options.first_seed, "The first seed")->capture_default_str();
    app.add_option("--driver", options.driver, "\"builtin\" or a qrndisk.sys")->capture_default_str();
    app.add_option("--jobs", options.jobs, "So many seeds at a time")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    app.add_option("--seed-timeout", options.seed_timeout_s, "Seconds after which a seed counts as hung")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    app.add_flag("--seed-log", options.seed_log, "Print what every seed draws and meets");
    app.add_option("--capture", options.capture,
                   "Write the packets of the one seed to this file, as they were sent,\n"
                   "for Wireshark (pcapng)")
        ->option_text("FILE");
    app.add_option("--uptime-days", options.uptime_days,
                   "Each seed is one workstation that stays on for so long, with ordinary faults")
        ->check(CLI::Range(0.25, 400.0));
    app.add_flag("--plain-atomics", options.plain_atomics,
                 "No thread switches at atomic operations: a seed runs as with a qrndisk.sys");
    app.add_option("--canary", options.canary, "Plant a fault in the servers that must be found")
        ->transform(CLI::CheckedTransformer(canaries));
    app.add_option("--expect-failure", options.expected_finding,
                   "Succeed when a seed fails with this text, or with one of several with a | between, and\n"
                   "none with another: for programs with a planted fault");
    app.add_option("--least-seeds", options.seeds_least, "Fail when there was time for fewer seeds");
    app.add_option("--least-met", options.kinds_least, "Fail when fewer things of the list were met");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw OptionError(error.what());
    }
    if (seeds != 0)
        options.seeds = seeds;
    if (options.canary != CanaryKind::none)
        options.expected_finding = finding_of(options.canary);
    if (!options.seeds && options.minutes == 0)
        throw OptionError("--seeds or --minutes is needed");
    if (!options.capture.empty() && options.seeds != 1)
        throw OptionError("--capture goes with --seeds 1");
    return options;
}

std::string replay_arguments(const Options& options)
{
    std::string text;
    if (options.driver != "builtin")
        text += " --driver " + options.driver;
    if (options.uptime_days != 0)
        text += fmt::format(" --uptime-days {}", options.uptime_days);
    if (options.plain_atomics)
        text += " --plain-atomics";
    for (const auto& [name, kind] : canaries)
        if (kind == options.canary)
            text += " --canary " + name;
    return text;
}

}  // namespace campaign
