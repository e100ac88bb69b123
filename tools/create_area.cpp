// SPDX-License-Identifier: MIT
// An image area of a disk, as a server hands it out to workstations.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "tools/area_name.h"
#include "tools/area_writer.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/nbd_disk.h"
#include "tools/raw_layout.h"
#include "tools/windows_time.h"

namespace image_tool {

using namespace formats;

namespace {

void refuse_same_file(const std::string& from, const std::string& to)
{
    if (from != "-" && !is_nbd_uri(from) && InputFile(AreaName(from).path).is_same_as(to))
        throw ToolError(to + ": is the file to read from");
}

// A partition that was never used is free to be written; what is in any other is somebody's.
AreaPlace find_free_partition(const AreaName& name, bool force)
{
    const InputFile disk(name.path);
    const AreaPlace place = find_area(disk, name);
    std::byte start[first_block_sector * sector_bytes];
    const std::span known(start, std::min<std::uint64_t>(sizeof start, place.size_bytes));
    disk.read(place.start_bytes, known);
    if (!force && !is_zero(known))
        throw ToolError(name.text + ": the partition is in use; --force overwrites it");
    return place;
}

std::unique_ptr<OutputFile> open_output(const AreaName& name, bool force)
{
    if (name.partition.empty())
        return std::make_unique<OutputFile>(name.path, force);
    const AreaPlace place = find_free_partition(name, force);
    return std::make_unique<OutputFile>(name.path, place.start_bytes, place.size_bytes);
}

std::uint32_t limit_sectors(const Options& options, const OutputFile& file)
{
    const std::uint64_t limit_bytes =
        std::min(file.size_limit_bytes(), options.limit_bytes != 0 ? options.limit_bytes : UINT64_MAX);
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(limit_bytes / sector_bytes, UINT32_MAX));
}

// Before anything is written over.
void check_room(const DiskContents& disk, std::uint32_t limit_sectors)
{
    const std::uint64_t needed = measure_area_of(disk).sectors();
    if (needed > limit_sectors)
        throw ToolError(fmt::format("the disk's contents do not fit into an area of {} sectors; they need {}",
                                    limit_sectors, needed));
}

}  // namespace

int write_area(const DiskContents& disk, const std::string& from, const std::string& to,
               const Options& options, Report& report)
{
    const AreaName name(to);
    const auto file = open_output(name, options.force);
    const std::uint32_t limit = limit_sectors(options, *file);
    if (!file->is_fresh())
        check_room(disk, limit);
    AreaWriter writer(*file, disk.size_sectors(), limit, options.tag);
    std::uint32_t added = 0;
    for_each_chunk_to_store(disk, "create", [&](std::uint32_t chunk, const ChunkContents& contents) {
        writer.add(chunk, options.tag, contents.data);
        ++added;
    });
    const std::uint64_t now = local_windows_time();
    writer.finish(now, now);
    file->complete(std::uint64_t{writer.used_sectors()} * sector_bytes);
    const std::uint32_t chunks = chunk_count(disk.size_sectors());
    report.print("{}: {} of {} chunks of {}, in {} sectors\n", to, added, chunks, from,
                 writer.used_sectors());
    report["area"] = to;
    report["disk_sectors"] = disk.size_sectors();
    report["tag"] = options.tag;
    report["chunks"] = chunks;
    report["chunks_stored"] = added;
    report["used_sectors"] = writer.used_sectors();
    return 0;
}

int create_area(const Options& options, Report& report)
{
    refuse_same_file(options.from, AreaName(options.area).path);
    const auto disk = open_raw_disk(options.from, options.in_use);
    return write_area(*disk, options.from, options.area, options, report);
}

}  // namespace image_tool
