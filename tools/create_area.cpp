// SPDX-License-Identifier: MIT
// An image area of a raw disk, as a server hands it out to workstations.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "tools/area_name.h"
#include "tools/area_writer.h"
#include "tools/commands.h"
#include "tools/disk_contents.h"
#include "tools/errors.h"
#include "tools/progress.h"
#include "tools/windows_time.h"

namespace image_tool {

using namespace formats;

namespace {

void refuse_same_file(const InputFile& from, const std::string& to)
{
    if (from.is_same_as(to))
        throw ToolError(to + ": is the file to read from");
}

// A partition that was never used is free to be written; what is in any other is somebody's.
std::unique_ptr<OutputFile> open_partition(const AreaName& name, bool force)
{
    const InputFile disk(name.path);
    const AreaPlace place = find_area(disk, name);
    std::byte start[first_block_sector * sector_bytes];
    const std::span known(start, std::min<std::uint64_t>(sizeof start, place.size_bytes));
    disk.read(place.start_bytes, known);
    if (!force && !is_zero(known))
        throw ToolError(name.text + ": the partition is in use; --force overwrites it");
    return std::make_unique<OutputFile>(name.path, place.start_bytes, place.size_bytes);
}

std::uint32_t limit_sectors(const Options& options, const OutputFile& file)
{
    const std::uint64_t limit_bytes =
        std::min(file.size_limit_bytes(), options.limit_bytes != 0 ? options.limit_bytes : UINT64_MAX);
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(limit_bytes / sector_bytes, UINT32_MAX));
}

// Chunks of zeros are left out: below its synchronisation position a workstation takes what is absent for
// zeros. But the synchronisation moves chunk n as the disk's LBAs 128 n - 1 to 128 n + 126, so the last
// sector of a chunk travels with the one that follows it, which must be there for that. And its position ends
// at the last chunk, which it never takes for zeros.
std::uint32_t add_chunks(const RawDisk& disk, AreaWriter& writer)
{
    const std::uint32_t chunks = chunk_count(disk.size_sectors());
    const auto contents = std::make_unique<ChunkContents>();
    Progress progress("create", chunks);
    std::uint32_t added = 0;
    bool carries_last_sector = false;
    for (std::uint32_t chunk = 0; chunk < chunks; ++chunk) {
        if (!carries_last_sector)
            chunk = std::min(disk.next_chunk(chunk), chunks - 1);
        progress.at(chunk);
        disk.read(chunk, *contents);
        const bool wanted = carries_last_sector || chunk == chunks - 1;
        if (!wanted && is_zero(contents->data))
            continue;
        writer.add(chunk, static_cast<unsigned>(contents->present.count()), contents->data);
        ++added;
        carries_last_sector = !is_zero(contents->sector(chunk_sectors - 1));
    }
    return added;
}

}  // namespace

int create_area(const Options& options, std::FILE* out)
{
    const AreaName name(options.area);
    const RawDisk disk(options.from);
    refuse_same_file(disk.file(), name.path);
    const auto file = name.partition.empty() ? std::make_unique<OutputFile>(name.path, options.force)
                                             : open_partition(name, options.force);
    AreaWriter writer(*file, disk.size_sectors(), limit_sectors(options, *file), options.tag);
    const std::uint32_t added = add_chunks(disk, writer);
    writer.finish(local_windows_time());
    file->complete(std::uint64_t{writer.used_sectors()} * sector_bytes);
    fmt::print(out, "{}: {} of {} chunks of {}, in {} sectors\n", options.area, added,
               chunk_count(disk.size_sectors()), options.from, writer.used_sectors());
    return 0;
}

}  // namespace image_tool
