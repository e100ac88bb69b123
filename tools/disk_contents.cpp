// SPDX-License-Identifier: MIT
#include "tools/disk_contents.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "formats/wire.h"
#include "tools/errors.h"
#include "tools/nbd_disk.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

std::uint32_t disk_sectors(const std::string& name, std::uint64_t size_bytes)
{
    const std::uint64_t sectors = size_bytes / sector_bytes;
    if (sectors == 0 || size_bytes % sector_bytes != 0)
        throw ToolError(
            fmt::format("{}: {} bytes are not a disk of whole 512-byte sectors", name, size_bytes));
    if (sectors > disk_sectors_max)
        throw ToolError(fmt::format("{}: more than the 1 TB that a workstation can address", name));
    return static_cast<std::uint32_t>(sectors);
}

RawDisk::RawDisk(const std::string& path, InUse in_use)
    : file_(path), size_sectors_(disk_sectors(file_.path(), file_.size_bytes()))
{
    ImageHeader header;
    if (file_.size_bytes() >= sizeof header) {
        file_.read(0, std::as_writable_bytes(std::span(&header, 1)));
        if (is_image_header(header))
            throw ToolError(file_.path() + ": is an image area, and no raw disk");
    }
    file_.lock(in_use);
}

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

AreaDisk::AreaDisk(const std::string& name, unsigned lun, InUse in_use) : area_(name, in_use)
{
    const std::uint64_t end = first_map_sector() + size_sectors();
    MapWalk walk = area_.walk();
    Progress progress("map", area_.header().Map_Secs.get() / map_block_sectors);
    unsigned luns_seen = 0;
    while (const MapChunk* found = walk.next()) {
        progress.at(walk.map_blocks());
        luns_seen |= 1u << key_lun(found->key);
        if (key_lun(found->key) != lun || !found->has_data)
            continue;
        stored_.push_back({key_chunk(found->key), found->entry});
        for (unsigned i = 0; i < chunk_sectors; ++i)
            if (sector_flag(found->entry.SecFlag, i) &&
                std::uint64_t{stored_.back().chunk} * chunk_sectors + i >= end)
                ++sectors_past_end_;
    }
    refuse_other_luns(lun, luns_seen);
}

// An empty area is one of LUN 0.
void AreaDisk::refuse_other_luns(unsigned lun, unsigned luns_seen) const
{
    if (luns_seen == 0)
        luns_seen = 1;
    if ((luns_seen >> lun & 1) != 0)
        return;
    std::string luns;
    for (unsigned i = 0; i < key_luns; ++i)
        if ((luns_seen >> i & 1) != 0)
            luns += fmt::format("{}{}", luns.empty() ? "" : ", ", i);
    throw ToolError(
        fmt::format("{}: holds nothing of LUN {}; it has LUN {}", area_.file().name(), lun, luns));
}

// What `create` makes has its last chunk, which a copy gets at the very end, and no tags beyond its own,
// which a copy has while it is brought up to date.
bool AreaDisk::is_server_image() const
{
    const ImageHeader& header = area_.header();
    const std::uint32_t chunks = chunk_count(size_sectors());
    return header.Sync_Tag.get() == 0 && header.Sync_Pos.get() == 0 && chunks != 0 &&
           entry(chunks - 1).ModifyTag.get() != 0 && std::ranges::none_of(stored_, [&](const Stored& stored) {
               return stored.entry.ModifyTag.get() > header.ModifyTag.get();
           });
}

std::uint64_t AreaDisk::unknown_sectors() const
{
    const ImageHeader& header = area_.header();
    const std::uint64_t end = first_map_sector() + size_sectors();
    const bool is_server = is_server_image();
    const std::uint64_t chunks = chunk_count(size_sectors());
    if (!is_server && header.ModifyTag.get() == header.Sync_Tag.get() &&
        header.Sync_Pos.get() + 1ull >= chunks)
        return 0;
    std::uint64_t known = 0, stale = 0;
    const auto sectors_in = [&](std::uint64_t chunk) {
        return std::min(end, (chunk + 1) * chunk_sectors) - std::min(end, chunk * chunk_sectors);
    };
    for (const Stored& stored : stored_) {
        const std::uint64_t in_disk = sectors_in(stored.chunk);
        std::uint64_t present = 0;
        for (unsigned i = 0; i < in_disk; ++i)
            present += sector_flag(stored.entry.SecFlag, i);
        if (is_server)
            stale += stored.entry.ModifyTag.get() != 0 ? in_disk - present : 0;
        else if (stored.chunk >= header.Sync_Pos.get())
            known += present;
    }
    if (is_server)
        return stale;
    const std::uint64_t below = std::min(end, std::uint64_t{header.Sync_Pos.get()} * chunk_sectors);
    // Without Sec_Shift map sector 0 is no sector of the disk.
    const std::uint64_t unused = below == 0 ? first_map_sector() : 0;
    return std::max<std::uint64_t>(end - below - std::min(end - below, known + unused), 1);
}

Entry_64K AreaDisk::entry(std::uint32_t chunk) const
{
    const auto stored = first_from(chunk);
    return stored != stored_.end() && stored->chunk == chunk ? stored->entry : Entry_64K{};
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

std::unique_ptr<DiskContents> open_disk(const std::string& name, unsigned lun, InUse in_use)
{
    if (is_nbd_uri(name))
        return std::make_unique<NbdDisk>(name);
    if (name == "-")
        return std::make_unique<RawDisk>(name, in_use);
    const auto is_area = [&] {
        const AreaFile file(name, in_use);
        return has_image_header(file) || file.place().partition != 0;
    };
    if (is_area())
        return std::make_unique<AreaDisk>(name, lun, in_use);
    return std::make_unique<RawDisk>(name, in_use);
}

std::unique_ptr<DiskContents> open_raw_disk(const std::string& name, InUse in_use)
{
    if (is_nbd_uri(name))
        return std::make_unique<NbdDisk>(name);
    return std::make_unique<RawDisk>(name, in_use);
}

}  // namespace image_tool
