// SPDX-License-Identifier: MIT
// The verifier's findings, for people and for scripts.
#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/verifier.h"

namespace image_tool {

int check_area(const Options& options, Report& report)
{
    const Findings found = verify(AreaFile(options.area, options.in_use));
    Json faults = Json::array();
    for (const Findings::Kind& kind : found.faults()) {
        for (const std::string& what : kind.first)
            report.print("fault: {}: {}\n", kind.name, what);
        if (kind.count > kind.first.size())
            report.print("fault: {}: and {} more\n", kind.name, kind.count - kind.first.size());
        faults.push_back({{"kind", kind.name}, {"count", kind.count}, {"first", kind.first}});
    }
    for (const std::string& remark : found.remarks())
        report.print("remark: {}\n", remark);
    if (found.fault_count() != 0)
        report.print("{}: {} faults\n", options.area, found.fault_count());
    else
        report.print("{}: clean, {} chunks with {} sectors under {} map blocks\n", options.area, found.chunks,
                     found.sectors, found.map_blocks);
    report["area"] = options.area;
    report["fault_count"] = found.fault_count();
    report["faults"] = std::move(faults);
    report["remarks"] = found.remarks();
    report["chunks"] = found.chunks;
    report["sectors"] = found.sectors;
    report["map_blocks"] = found.map_blocks;
    return found.fault_count() != 0 ? 1 : 0;
}

}  // namespace image_tool
