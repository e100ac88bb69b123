// SPDX-License-Identifier: MIT
#include "campaign/local_area.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>

#include <fmt/format.h>

#include "campaign/report.h"
#include "formats/image_area.h"
#include "tools/errors.h"
#include "tools/image_area.h"
#include "tools/verifier.h"

namespace campaign {

using namespace formats;

namespace {

constexpr std::uint32_t gap_sectors = 100;

std::uint32_t temporary_start(const LocalPlan& plan)
{
    return system_area_start + plan.system_sectors + gap_sectors;
}

template <typename Object>
Object& object_at(std::vector<std::uint8_t>& bytes, std::uint32_t sector)
{
    return *reinterpret_cast<Object*>(bytes.data() + std::size_t{sector} * sector_bytes);
}

// The synchronisation copies chunk n as the image's sectors from 128 n - 1 on when they are shifted, so the
// last sector of a chunk needs the chunk behind it too.
std::vector<bool> chunks_with_data(const ImageVersion& version)
{
    const auto chunks = static_cast<std::uint32_t>(version.tags.size());
    std::vector<bool> wanted(chunks);
    for (std::uint32_t lba = 0; lba < version.contents.size(); ++lba) {
        if (version.contents[lba] == zeros)
            continue;
        const std::uint32_t sector = version.image_sector(lba);
        wanted[sector / chunk_sectors] = true;
        if (version.shifted && sector % chunk_sectors == chunk_sectors - 1 &&
            sector / chunk_sectors + 1 < chunks)
            wanted[sector / chunk_sectors + 1] = true;
    }
    return wanted;
}

// A file that has these bytes and goes with its owner.
class MemoryFile {
public:
    explicit MemoryFile(std::span<const std::uint8_t> bytes) : file_(memfd_create("area", MFD_CLOEXEC))
    {
        if (file_ < 0 || write(file_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            fail("no memory for a copy of the local disk");
    }
    ~MemoryFile() { close(file_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string path() const { return fmt::format("/proc/self/fd/{}", file_); }

private:
    int file_;
};

// The system image against the versions that the server had.
class ContentCheck {
public:
    ContentCheck(const ImageHeader& header, std::span<const std::uint8_t> bytes,
                 std::span<const ImageVersion> versions, const Generations& generations)
        : header_(header), bytes_(bytes), versions_(versions), generations_(generations)
    {
        const auto named = std::ranges::find_if(versions, [&](const ImageVersion& version) {
            return version.create_time == header.CreateTime.get() &&
                   version.modify_tag == header.Sync_Tag.get() &&
                   version.shifted == (header.Sec_Shift.get() != 0);
        });
        claimed_ = named == versions.end() ? nullptr : &*named;
    }

    void chunk(std::uint32_t number, const Entry_64K& entry)
    {
        const std::uint32_t tag = entry.ModifyTag.get();
        for (unsigned i = 0; tag != 0 && i < chunk_sectors; ++i) {
            const std::uint32_t sector = number * chunk_sectors + i;
            const std::uint32_t lba = header_.Sec_Shift.get() != 0 ? sector : sector - 1;
            if (!sector_flag(entry.SecFlag, i) || lba >= sectors())
                continue;
            const auto data =
                bytes_.subspan((std::size_t{entry.Data_Sec.get()} + i) * sector_bytes, sector_bytes);
            if (!of_version(number, tag, i, lba, data))
                fail(fmt::format("the system image says that it has LBA {} with tag {:X}, but there is {}",
                                 lba, tag, describe(data)));
            present_.insert(lba);
            if (below_sync_pos(lba) && !same(*claimed_, lba, data))
                fail(fmt::format(
                    "LBA {} lies below Sync_Pos {:X} of the system image with tag {:X}, but is {}", lba,
                    header_.Sync_Pos.get(), header_.Sync_Tag.get(), describe(data)));
        }
    }

    // What lies below Sync_Pos and is not there, the server has not either. How many such claims there are.
    std::uint64_t absent_sectors() const
    {
        std::uint64_t count = 0;
        for (std::uint32_t lba = 0; lba < sectors() && below_sync_pos(lba); ++lba) {
            if (present_.contains(lba))
                continue;
            ++count;
            if (claimed_->contents[lba] != zeros)
                fail(fmt::format("the system image with Sync_Pos {:X} and tag {:X} lacks LBA {}, which the "
                                 "server's has",
                                 header_.Sync_Pos.get(), header_.Sync_Tag.get(), lba));
        }
        return count;
    }

private:
    std::uint32_t sectors() const { return static_cast<std::uint32_t>(versions_[0].contents.size()); }
    bool same(const ImageVersion& version, std::uint32_t lba, std::span<const std::uint8_t> data) const
    {
        return std::ranges::equal(generations_.content({0, lba}, version.contents[lba]), data);
    }
    // A power cut can leave a chunk's old tag with sectors that came for a newer one: the server's chunk has
    // that newer tag and is copied again. A chunk that is being filled has any version's sectors, and so has
    // the last sector of a chunk, which comes with the one behind.
    bool of_version(std::uint32_t number, std::uint32_t tag, unsigned index, std::uint32_t lba,
                    std::span<const std::uint8_t> data) const
    {
        constexpr std::uint32_t in_work = 0xFFFFFFFF;
        const bool any = tag == in_work || (index == chunk_sectors - 1 && header_.Sec_Shift.get() != 0);
        return std::ranges::any_of(versions_, [&](const ImageVersion& version) {
            return (any || (number < version.tags.size() && version.tags[number] >= tag)) &&
                   same(version, lba, data);
        });
    }
    // Sync_Pos names the last chunk handled; 0 may be none as well.
    bool below_sync_pos(std::uint32_t lba) const
    {
        const std::uint32_t chunk = header_.Sync_Pos.get();
        return claimed_ && chunk != 0 && lba < (chunk + 1) * chunk_sectors - 1;
    }

    const ImageHeader& header_;
    std::span<const std::uint8_t> bytes_;
    std::span<const ImageVersion> versions_;
    const Generations& generations_;
    const ImageVersion* claimed_;
    std::set<std::uint32_t> present_;
};

std::uint64_t check_contents(const image_tool::ImageArea& area, std::span<const std::uint8_t> bytes,
                             std::span<const ImageVersion> versions, const Generations& generations)
{
    ContentCheck check(area.header(), bytes, versions, generations);
    image_tool::MapWalk walk = area.walk();
    while (const image_tool::MapChunk* chunk = walk.next())
        if (key_lun(chunk->key) == 0)
            check.chunk(key_chunk(chunk->key), chunk->entry);
    return check.absent_sectors();
}

}  // namespace

std::unique_ptr<machine::LocalDisk> make_local_disk(const LocalPlan& plan)
{
    const std::uint32_t end = temporary_start(plan) + plan.temporary_sectors + gap_sectors;
    auto disk = std::make_unique<machine::LocalDisk>(end, plan.options);
    std::vector<std::uint8_t> bytes(sector_bytes);
    auto& table = object_at<PartitionSector>(bytes, 0);
    table.Partition[0].Type = partition_system_image;
    table.Partition[0].Start.set(system_area_start);
    table.Partition[0].Count.set(plan.system_sectors);
    if (plan.temporary_sectors != 0) {
        table.Partition[2].Type = partition_temporary_image;
        table.Partition[2].Start.set(temporary_start(plan));
        table.Partition[2].Count.set(plan.temporary_sectors);
    }
    table.Signature.set(boot_signature);
    disk->write(0, bytes);
    return disk;
}

std::vector<std::uint8_t> make_server_image(const ImageVersion& version, const Generations& generations)
{
    const auto sectors = version.image_sector(static_cast<std::uint32_t>(version.contents.size()));
    const auto chunks = static_cast<std::uint32_t>(version.tags.size());
    const std::uint32_t leaves = (chunks + leaf_entries - 1) / leaf_entries;
    const std::uint32_t level1 = first_block_sector, level2 = level1 + map_block_sectors;
    const std::uint32_t first_leaf = level2 + map_block_sectors;
    const std::uint32_t first_data = first_leaf + leaves * map_block_sectors;
    const auto wanted = chunks_with_data(version);
    const auto stored = static_cast<std::uint32_t>(std::ranges::count(wanted, true));
    std::vector<std::uint8_t> area(std::size_t{first_data + stored * chunk_sectors} * sector_bytes);

    auto& header = object_at<ImageHeader>(area, 0);
    set_new_image(header, sectors);
    header.CreateTime.set(version.create_time);
    header.ModifyTag.set(version.modify_tag);
    header.Sec_Shift.set(version.shifted);
    header.Used.set(first_data + stored * chunk_sectors);
    header.Map_Secs.set(first_data - root_sector);
    header.ChkSum.set(image_checksum(&header));
    object_at<RootTable>(area, root_sector).Level1_Sec[0].set(level1);
    object_at<MapBlock>(area, level1).Next_Sec[0].set(level2);
    for (std::uint32_t leaf = 0; leaf < leaves; ++leaf)
        object_at<MapBlock>(area, level2).Next_Sec[leaf].set(first_leaf + leaf * map_block_sectors);
    std::uint32_t data = first_data;
    for (std::uint32_t chunk = 0; chunk < chunks; ++chunk) {
        if (!wanted[chunk])
            continue;
        const std::uint32_t leaf = first_leaf + chunk / leaf_entries * map_block_sectors;
        Entry_64K& entry = object_at<LeafBlock>(area, leaf).Chunk[chunk % leaf_entries];
        entry.Data_Sec.set(data);
        entry.ModifyTag.set(version.tags[chunk]);
        for (std::uint32_t i = 0; i < chunk_sectors && chunk * chunk_sectors + i < sectors; ++i) {
            const std::uint32_t lba = chunk * chunk_sectors + i - (version.shifted ? 0 : 1);
            if (lba < version.contents.size())  // not the sector before the first
                object_at<Sector>(area, data + i) = generations.content({0, lba}, version.contents[lba]);
            entry.SecFlag[i / 8] = static_cast<std::uint8_t>(entry.SecFlag[i / 8] | 1u << i % 8);
        }
        data += chunk_sectors;
    }
    return area;
}

bool verify_system_area(const machine::LocalDisk& disk, const LocalPlan& plan,
                        std::span<const ImageVersion> versions, const Generations& generations)
{
    const std::vector<std::uint8_t> bytes = disk.read(system_area_start, plan.system_sectors);
    const MemoryFile copy(bytes);
    const image_tool::AreaFile file(copy.path());
    // Of the first header that this area got only the second sector may have come before the power went.
    const bool torn =
        std::all_of(bytes.begin(), bytes.begin() + formats::sector_bytes, [](auto b) { return b == 0; });
    if (torn || !image_tool::has_image_header(file))
        return false;
    const image_tool::Findings findings = image_tool::verify(file);
    if (findings.fault_count() != 0) {
        std::string text = "the system image is damaged:";
        for (const auto& kind : findings.faults())
            for (const std::string& what : kind.first)
                text += fmt::format("\n  {}: {}", kind.name, what);
        fail(text);
    }
    try {
        check_contents(image_tool::ImageArea(copy.path()), bytes, versions, generations);
    } catch (const image_tool::ToolError& error) {
        fail(fmt::format("the system image cannot be read: {}", error.what()));
    }
    return true;
}

}  // namespace campaign
