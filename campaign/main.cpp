// SPDX-License-Identifier: MIT
// qrn-campaign: hunts faults of the driver by simulation. See --help.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "campaign/options.h"
#include "campaign/runner.h"

int main(int argc, char** argv)
{
    constexpr int status_wrong_arguments = 2;
    try {
        const auto options = campaign::parse_options(argc, argv);
        return options ? campaign::run_campaign(*options, argv[0]) : EXIT_SUCCESS;
    } catch (const campaign::OptionError& error) {
        std::fprintf(stderr, "qrn-campaign: %s\n", error.what());
        return status_wrong_arguments;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-campaign: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
