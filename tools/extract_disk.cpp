// SPDX-License-Identifier: MIT
// A raw disk of what an image area, or another raw disk, holds.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/output_file.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

// Returns how many sectors were present. What is written over gets its zeros too.
std::uint64_t copy(const DiskContents& disk, OutputFile& file)
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

std::unique_ptr<OutputFile> open_output(const std::string& to, bool force, std::uint64_t size_bytes)
{
    auto file = to == "-" ? std::make_unique<OutputFile>(OutputFile::InOrder{})
                          : std::make_unique<OutputFile>(to, force);
    if (file->size_limit_bytes() < size_bytes)
        throw ToolError(fmt::format("{}: too small, the disk has {} bytes", to, size_bytes));
    return file;
}

}  // namespace

int write_raw(const DiskContents& disk, const std::string& from, const std::string& to,
              const Options& options, Report& report)
{
    if (disk.size_sectors() == 0)
        throw DamagedArea(from + ": says that its disk has no sectors");
    const auto* const area = dynamic_cast<const AreaDisk*>(&disk);
    if (area != nullptr && area->area().file().file().is_same_as(to))
        throw ToolError(to + ": is the file to read from");
    const std::uint64_t unknown = area != nullptr ? area->unknown_sectors() : 0;
    report["disk_sectors"] = disk.size_sectors();
    report["unknown_sectors"] = unknown;
    if (unknown != 0 && !options.allow_absent) {
        report.print("{}: is no whole copy of the disk: {} of {} sectors ({:.1f} %) are not there, or not "
                     "yet brought up "
                     "to date. Nothing was written; --allow-absent takes zeros for what is absent\n",
                     from, unknown, disk.size_sectors(),
                     100.0 * static_cast<double>(unknown) / static_cast<double>(disk.size_sectors()));
        return 1;
    }
    const std::uint64_t size_bytes = std::uint64_t{disk.size_sectors()} * sector_bytes;
    const auto file = open_output(to, options.force, size_bytes);
    const std::uint64_t present = copy(disk, *file);
    file->complete(size_bytes);
    report.print("{}: {} sectors, {} of them absent and now zeros\n", to, disk.size_sectors(),
                 disk.size_sectors() - present);
    report["raw"] = to;
    report["present_sectors"] = present;
    if (area == nullptr)
        return 0;
    if (area->sectors_past_end() != 0)
        report.print("left out: {} sectors that lie past the disk's end\n", area->sectors_past_end());
    report["sectors_past_end"] = area->sectors_past_end();
    return 0;
}

int extract_disk(const Options& options, Report& report)
{
    const AreaDisk disk(options.area, options.lun, options.in_use);
    return write_raw(disk, options.area, options.to, options, report);
}

}  // namespace image_tool
