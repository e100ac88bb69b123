// SPDX-License-Identifier: MIT
#include "tools/disk_contents.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "tools/errors.h"
#include "formats/wire.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

std::uint32_t disk_sectors(const InputFile& file)
{
    const std::uint64_t sectors = file.size_bytes() / sector_bytes;
    if (sectors == 0 || file.size_bytes() % sector_bytes != 0)
        throw ToolError(fmt::format("{}: {} bytes are not a disk of whole 512-byte sectors", file.path(),
                                    file.size_bytes()));
    if (sectors > disk_sectors_max)
        throw ToolError(fmt::format("{}: more than the 1 TB that a workstation can address", file.path()));
    return static_cast<std::uint32_t>(sectors);
}

}  // namespace

RawDisk::RawDisk(const std::string& path) : file_(path), size_sectors_(disk_sectors(file_)) {}

std::uint32_t RawDisk::next_chunk(std::uint32_t from) const
{
    const std::uint64_t start = std::uint64_t{from} * chunk_bytes;
    const std::uint64_t data = start < file_.size_bytes() ? file_.next_data(start) : file_.size_bytes();
    return data < file_.size_bytes() ? static_cast<std::uint32_t>(data / chunk_bytes) : no_chunk;
}

void RawDisk::read(std::uint32_t chunk, ChunkContents& contents) const
{
    const std::uint64_t start = std::uint64_t{chunk} * chunk_bytes;
    contents = {};
    if (start >= file_.size_bytes())
        return;
    const std::uint64_t size = std::min<std::uint64_t>(chunk_bytes, file_.size_bytes() - start);
    file_.read(start, {contents.data, size});
    for (unsigned i = 0; i < size / sector_bytes; ++i)
        contents.present.set(i);
}

AreaDisk::AreaDisk(const std::string& name, unsigned lun) : area_(name)
{
    const std::uint64_t end = first_map_sector() + size_sectors();
    MapWalk walk = area_.walk();
    Progress progress("map", area_.header().Map_Secs.get() / map_block_sectors);
    while (const MapChunk* found = walk.next()) {
        progress.at(walk.map_blocks());
        if (key_lun(found->key) != lun || !found->has_data)
            continue;
        stored_.push_back({key_chunk(found->key), found->entry});
        for (unsigned i = 0; i < chunk_sectors; ++i)
            if (sector_flag(found->entry.SecFlag, i) &&
                std::uint64_t{stored_.back().chunk} * chunk_sectors + i >= end)
                ++sectors_past_end_;
    }
}

std::vector<AreaDisk::Stored>::const_iterator AreaDisk::first_from(std::uint32_t chunk) const
{
    return std::ranges::lower_bound(stored_, chunk, {}, &Stored::chunk);
}

// Without Sec_Shift the first sector of a map chunk is the last one of the disk's chunk before.
std::uint32_t AreaDisk::next_chunk(std::uint32_t from) const
{
    const auto stored = first_from(from);
    if (stored == stored_.end())
        return no_chunk;
    const std::uint32_t chunk =
        stored->chunk > from ? stored->chunk - static_cast<std::uint32_t>(first_map_sector()) : from;
    return chunk < chunk_count(size_sectors()) ? chunk : no_chunk;
}

void AreaDisk::read(std::uint32_t chunk, ChunkContents& contents) const
{
    contents = {};
    const std::uint64_t lba = std::uint64_t{chunk} * chunk_sectors;
    if (lba >= size_sectors())
        return;
    const auto count = static_cast<unsigned>(std::min<std::uint64_t>(chunk_sectors, size_sectors() - lba));
    const std::uint64_t map_sector = lba + first_map_sector();
    const auto in_first = std::min(count, chunk_sectors - static_cast<unsigned>(map_sector % chunk_sectors));
    add(map_sector, in_first, 0, contents);
    if (in_first < count)
        add(map_sector + in_first, count - in_first, in_first, contents);
}

// The sectors lie in one map chunk. Runs of present ones are read at once.
void AreaDisk::add(std::uint64_t map_sector, unsigned count, unsigned to, ChunkContents& contents) const
{
    const auto chunk = static_cast<std::uint32_t>(map_sector / chunk_sectors);
    const auto stored = first_from(chunk);
    if (stored == stored_.end() || stored->chunk != chunk)
        return;
    const unsigned first = static_cast<unsigned>(map_sector % chunk_sectors);
    const auto is_present = [&](unsigned i) { return sector_flag(stored->entry.SecFlag, first + i); };
    for (unsigned i = 0; i < count; ++i) {
        const unsigned start = i;
        for (; i < count && is_present(i); ++i)
            contents.present.set(to + i);
        if (i > start)
            area_.file().read_bytes(stored->entry.Data_Sec.get() + first + start,
                                    {contents.data + std::size_t{to + start} * sector_bytes,
                                     std::size_t{i - start} * sector_bytes});
    }
}

std::unique_ptr<DiskContents> open_disk(const std::string& name, unsigned lun)
{
    const AreaFile file(name);
    if (has_image_header(file) || file.place().partition != 0)
        return std::make_unique<AreaDisk>(name, lun);
    return std::make_unique<RawDisk>(name);
}

}  // namespace image_tool
