// SPDX-License-Identifier: MIT
// A raw disk of what an image area holds.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/disk_contents.h"
#include "tools/errors.h"
#include "tools/output_file.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

// Returns how many sectors were present. What is written over gets its zeros too.
std::uint64_t copy(const AreaDisk& disk, OutputFile& file)
{
    const std::uint32_t chunks = chunk_count(disk.size_sectors());
    const std::uint64_t size_bytes = std::uint64_t{disk.size_sectors()} * sector_bytes;
    const auto contents = std::make_unique<ChunkContents>();
    Progress progress("extract", chunks);
    std::uint64_t present = 0;
    for (std::uint32_t chunk = 0; chunk < chunks; ++chunk) {
        if (file.is_fresh())
            chunk = disk.next_chunk(chunk);
        if (chunk == no_chunk)
            break;
        progress.at(chunk);
        disk.read(chunk, *contents);
        const std::uint64_t start = std::uint64_t{chunk} * chunk_bytes;
        file.write(start, {contents->data, std::min<std::uint64_t>(chunk_bytes, size_bytes - start)});
        present += contents->present.count();
    }
    return present;
}

}  // namespace

int extract_disk(const Options& options, std::FILE* out)
{
    const AreaDisk disk(options.area, options.lun);
    if (disk.size_sectors() == 0)
        throw DamagedArea(options.area + ": says that its disk has no sectors");
    if (disk.area().file().file().is_same_as(options.to))
        throw ToolError(options.to + ": is the file to read from");
    OutputFile file(options.to, options.force);
    const std::uint64_t present = copy(disk, file);
    file.complete(std::uint64_t{disk.size_sectors()} * sector_bytes);
    fmt::print(out, "{}: {} sectors, {} of them absent and now zeros\n", options.to, disk.size_sectors(),
               disk.size_sectors() - present);
    if (disk.sectors_past_end() != 0)
        fmt::print(out, "left out: {} sectors that lie past the disk's end\n", disk.sectors_past_end());
    return 0;
}

}  // namespace image_tool
