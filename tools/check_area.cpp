// SPDX-License-Identifier: MIT
// The verifier's findings, for people and for scripts.
#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/verifier.h"

namespace image_tool {

int check_area(const Options& options, std::FILE* out)
{
    const Findings found = verify(AreaFile(options.area));
    for (const Findings::Kind& kind : found.faults()) {
        for (const std::string& what : kind.first)
            fmt::print(out, "fault: {}: {}\n", kind.name, what);
        if (kind.count > kind.first.size())
            fmt::print(out, "fault: {}: and {} more\n", kind.name, kind.count - kind.first.size());
    }
    for (const std::string& remark : found.remarks())
        fmt::print(out, "remark: {}\n", remark);
    if (found.fault_count() != 0) {
        fmt::print(out, "{}: {} faults\n", options.area, found.fault_count());
        return 1;
    }
    fmt::print(out, "{}: clean, {} chunks with {} sectors under {} map blocks\n", options.area, found.chunks,
               found.sectors, found.map_blocks);
    return 0;
}

}  // namespace image_tool
