// SPDX-License-Identifier: MIT
// A local disk: a partition table, and partitions for the images.
#include <fmt/format.h>

#include "formats/image_area.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/output_file.h"
#include "tools/partition_size.h"

namespace image_tool {

using namespace formats;

namespace {

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
        const std::uint64_t count = partition_sectors(option, bytes);
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
        next_sector_ += aligned(count);
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

int make_disk(const Options& options, Report& report)
{
    const std::uint64_t disk_sectors = whole_sectors("--size", options.size_bytes);
    Table table(disk_sectors);
    table.add("--system", partition_system_image, options.system_bytes);
    table.add("--temporary", partition_temporary_image, options.temporary_bytes);
    if (table.partitions() == 0)
        throw ToolError("disk: needs --system, --temporary or both");
    OutputFile disk(options.file, options.force);
    disk.write(0, std::as_bytes(std::span(&table.sector(), 1)));
    disk.complete(options.size_bytes);
    report.print("{}: {} sectors\n", options.file, disk_sectors);
    report["disk"] = options.file;
    report["sectors"] = disk_sectors;
    report_partitions(table.sector(), report);
    return 0;
}

}  // namespace image_tool
