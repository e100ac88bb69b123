// SPDX-License-Identifier: MIT
// A local disk: a partition table, and partitions for the images.
#include <fmt/format.h>

#include "formats/image_area.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/output_file.h"

namespace image_tool {

using namespace formats;

namespace {

// Partitions start on whole megabytes, as everywhere.
constexpr std::uint64_t alignment_sectors = (1 << 20) / sector_bytes;
// Header, root table, one chunk and the map blocks above it.
constexpr std::uint64_t area_sectors_min = first_block_sector + 3 * map_block_sectors + chunk_sectors;

std::uint64_t sectors(const char* option, std::uint64_t bytes)
{
    if (bytes % sector_bytes != 0)
        throw ToolError(fmt::format("{}: {} bytes are no whole sectors of 512", option, bytes));
    if (bytes / sector_bytes > UINT32_MAX)
        throw ToolError(fmt::format("{}: a partition table cannot describe more than 2 TB", option));
    return bytes / sector_bytes;
}

class Table {
public:
    explicit Table(std::uint64_t disk_sectors) : disk_sectors_(disk_sectors)
    {
        table_.Signature.set(boot_signature);
    }

    void add(const char* option, std::uint8_t type, std::uint64_t bytes)
    {
        if (bytes == 0)
            return;
        const std::uint64_t count = sectors(option, bytes);
        if (count < area_sectors_min)
            throw ToolError(fmt::format("{}: an image area has at least {} bytes", option,
                                        area_sectors_min * sector_bytes));
        if (next_sector_ + count > disk_sectors_)
            throw ToolError(fmt::format("{}: {} sectors from sector {} on do not fit a disk of {} sectors",
                                        option, count, next_sector_, disk_sectors_));
        PartitionEntry& entry = table_.Partition[partitions_++];
        entry.Type = type;
        // Cylinders, heads and sectors: "see the other fields".
        for (auto* chs : {&entry.First_Chs, &entry.Last_Chs}) {
            (*chs)[0] = 0xFE;
            (*chs)[1] = (*chs)[2] = 0xFF;
        }
        entry.Start.set(static_cast<std::uint32_t>(next_sector_));
        entry.Count.set(static_cast<std::uint32_t>(count));
        next_sector_ += (count + alignment_sectors - 1) / alignment_sectors * alignment_sectors;
    }

    unsigned partitions() const { return partitions_; }
    const PartitionSector& sector() const { return table_; }

private:
    PartitionSector table_{};
    std::uint64_t disk_sectors_;
    std::uint64_t next_sector_ = alignment_sectors;
    unsigned partitions_ = 0;
};

}  // namespace

int make_disk(const Options& options, std::FILE* out)
{
    const std::uint64_t disk_sectors = sectors("--size", options.size_bytes);
    Table table(disk_sectors);
    table.add("--system", partition_system_image, options.system_bytes);
    table.add("--temporary", partition_temporary_image, options.temporary_bytes);
    if (table.partitions() == 0)
        throw ToolError("disk: needs --system, --temporary or both");
    OutputFile disk(options.file, options.force);
    disk.write(0, std::as_bytes(std::span(&table.sector(), 1)));
    disk.complete(options.size_bytes);
    fmt::print(out, "{}: {} sectors\n", options.file, disk_sectors);
    for (unsigned i = 0; i < table.partitions(); ++i) {
        const PartitionEntry& entry = table.sector().Partition[i];
        fmt::print(out, "  {} {:10} type {:02X}  sector {:10}  {:10} sectors\n", i + 1,
                   entry.Type == partition_system_image ? "system" : "temporary", entry.Type,
                   entry.Start.get(), entry.Count.get());
    }
    return 0;
}

}  // namespace image_tool
