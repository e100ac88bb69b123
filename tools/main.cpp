// SPDX-License-Identifier: MIT
// qrn-image: makes, looks at and checks image areas.
#include <cstdio>
#include <exception>

#include <fmt/format.h>

#include "tools/errors.h"
#include "tools/options.h"
#include "tools/progress.h"

int main(int argc, char** argv)
{
    using namespace image_tool;
    try {
        const CommandLine line = parse_options(argc, argv);
        if (!line.command)
            return 0;
        take_signals();
        const int status = line.command(line.options, stdout);
        if (std::fflush(stdout) != 0)
            throw ToolError("the output cannot be written");
        return status;
    } catch (const std::exception& error) {
        fmt::print(stderr, "qrn-image: {}\n", error.what());
        return 2;
    }
}
