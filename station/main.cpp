// SPDX-License-Identifier: MIT
// qrn-station: a workstation in a process. See --help.
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "programs/log.h"
#include "station/options.h"
#include "station/stop_signal.h"
#include "station/workstation.h"

namespace {

constexpr int status_wrong_arguments = 2;

// The machine's threads have no end; the process goes as a machine does when its power goes.
[[noreturn]] void power_off(int status)
{
    std::fflush(stdout);
    std::_Exit(status);
}

}  // namespace

int main(int argc, char** argv)
{
    // A reader of the output that left, or a file that may grow no more, is no reason to leave the disks as
    // they are.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    programs::name_log("qrn-station");
    try {
        const auto options = station::parse_options(argc, argv);
        if (!options)
            return 0;
        station::StopSignal stop;
        station::Workstation workstation(*options, stop);
        power_off(workstation.run());
    } catch (const station::OptionError& error) {
        programs::log(programs::LogLevel::error, error.what());
        power_off(status_wrong_arguments);
    } catch (const std::exception& error) {
        programs::log(programs::LogLevel::error, error.what());
        power_off(EXIT_FAILURE);
    }
}
