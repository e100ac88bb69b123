// SPDX-License-Identifier: MIT
#include "campaign/local_area.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

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

// The synchronisation copies chunk n as the disk's sectors from 128 n - 1 on, so the last sector of a chunk
// needs the chunk behind it too.
std::vector<bool> chunks_with_data(std::uint32_t sectors, std::uint32_t chunks,
                                   const std::function<Sector(std::uint32_t)>& content)
{
    std::vector<bool> wanted(chunks);
    for (std::uint32_t lba = 0; lba < sectors; ++lba) {
        if (content(lba) == Sector{})
            continue;
        wanted[lba / chunk_sectors] = true;
        if (lba % chunk_sectors == chunk_sectors - 1 && lba / chunk_sectors + 1 < chunks)
            wanted[lba / chunk_sectors + 1] = true;
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

void check_contents(const image_tool::ImageArea& area, std::span<const std::uint8_t> bytes,
                    const std::function<bool(std::uint32_t, std::span<const std::uint8_t>)>& allowed)
{
    image_tool::MapWalk walk = area.walk();
    const std::uint32_t size = area.header().Size.get();
    while (const image_tool::MapChunk* chunk = walk.next()) {
        if (key_lun(chunk->key) != 0 || chunk->entry.ModifyTag.get() == 0)
            continue;
        for (unsigned i = 0; i < chunk_sectors; ++i) {
            const std::uint32_t lba = key_chunk(chunk->key) * chunk_sectors + i;
            if (!sector_flag(chunk->entry.SecFlag, i) || lba >= size)
                continue;
            const auto sector =
                bytes.subspan((std::size_t{chunk->entry.Data_Sec.get()} + i) * sector_bytes, sector_bytes);
            if (!allowed(lba, sector))
                fail(fmt::format("the system image says that it has LBA {}, but there is {}", lba,
                                 describe(sector)));
        }
    }
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

std::vector<std::uint8_t> make_server_image(std::uint32_t sectors, std::uint64_t create_time,
                                            std::uint32_t modify_tag, std::span<const std::uint32_t> tags,
                                            const std::function<Sector(std::uint32_t)>& content)
{
    const auto chunks = static_cast<std::uint32_t>(tags.size());
    const std::uint32_t leaves = (chunks + leaf_entries - 1) / leaf_entries;
    const std::uint32_t level1 = first_block_sector, level2 = level1 + map_block_sectors;
    const std::uint32_t first_leaf = level2 + map_block_sectors;
    const std::uint32_t first_data = first_leaf + leaves * map_block_sectors;
    const auto wanted = chunks_with_data(sectors, chunks, content);
    const auto stored = static_cast<std::uint32_t>(std::ranges::count(wanted, true));
    std::vector<std::uint8_t> area(std::size_t{first_data + stored * chunk_sectors} * sector_bytes);

    auto& header = object_at<ImageHeader>(area, 0);
    set_new_image(header, sectors);
    header.CreateTime.set(create_time);
    header.ModifyTag.set(modify_tag);
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
        entry.ModifyTag.set(tags[chunk]);
        for (std::uint32_t i = 0; i < chunk_sectors && chunk * chunk_sectors + i < sectors; ++i) {
            object_at<Sector>(area, data + i) = content(chunk * chunk_sectors + i);
            entry.SecFlag[i / 8] = static_cast<std::uint8_t>(entry.SecFlag[i / 8] | 1u << i % 8);
        }
        data += chunk_sectors;
    }
    return area;
}

bool verify_system_area(const machine::LocalDisk& disk, const LocalPlan& plan,
                        const std::function<bool(std::uint32_t, std::span<const std::uint8_t>)>& allowed)
{
    const std::vector<std::uint8_t> bytes = disk.read(system_area_start, plan.system_sectors);
    const MemoryFile copy(bytes);
    const image_tool::AreaFile file(copy.path());
    if (!image_tool::has_image_header(file))
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
        check_contents(image_tool::ImageArea(copy.path()), bytes, allowed);
    } catch (const image_tool::ToolError& error) {
        fail(fmt::format("the system image cannot be read: {}", error.what()));
    }
    return true;
}

}  // namespace campaign
