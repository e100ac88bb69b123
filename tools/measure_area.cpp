// SPDX-License-Identifier: MIT
// How large the area of a disk is going to be.
#include "tools/commands.h"
#include "tools/raw_layout.h"

namespace image_tool {

using namespace formats;

int measure_area(const Options& options, Report& report)
{
    const auto disk = open_disk(options.area, options.lun, options.in_use);
    const AreaSize size = measure_area_of(*disk);
    // Every chunk of the disk, with the map blocks above them.
    AreaSize full;
    for (std::uint32_t chunk = 0; chunk < chunk_count(disk->size_sectors()); ++chunk)
        full.add(chunk);
    report.print(
        "{}: an area takes {} bytes ({} of {} chunks), and at most {} when every chunk has contents\n",
        options.area, size.sectors() * sector_bytes, size.chunks, full.chunks, full.sectors() * sector_bytes);
    report["disk_sectors"] = disk->size_sectors();
    report["required_bytes"] = size.sectors() * sector_bytes;
    report["required_chunks"] = size.chunks;
    report["full_bytes"] = full.sectors() * sector_bytes;
    report["full_chunks"] = full.chunks;
    return 0;
}

}  // namespace image_tool
