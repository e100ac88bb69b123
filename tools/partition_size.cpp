// SPDX-License-Identifier: MIT
#include "tools/partition_size.h"

#include "tools/errors.h"

namespace image_tool {

using namespace formats;

namespace {

// Header, root table, one chunk and the map blocks above it.
constexpr std::uint64_t area_sectors_min = first_block_sector + 3 * map_block_sectors + chunk_sectors;

const char* name_of(std::uint8_t type)
{
    return type == partition_system_image      ? "system"
           : type == partition_temporary_image ? "temporary"
                                               : "other";
}

}  // namespace

std::uint64_t whole_sectors(const char* option, std::uint64_t bytes)
{
    if (bytes % sector_bytes != 0)
        throw ToolError(fmt::format("{}: {} bytes are no whole sectors of 512", option, bytes));
    if (bytes / sector_bytes > UINT32_MAX)
        throw ToolError(fmt::format("{}: a partition table cannot describe more than 2 TB", option));
    return bytes / sector_bytes;
}

std::uint64_t partition_sectors(const char* option, std::uint64_t bytes)
{
    const std::uint64_t count = whole_sectors(option, bytes);
    if (count < area_sectors_min)
        throw ToolError(
            fmt::format("{}: an image area has at least {} bytes", option, area_sectors_min * sector_bytes));
    return count;
}

void report_partitions(const PartitionSector& table, Report& report)
{
    Json partitions = Json::array();
    for (unsigned i = 0; i < partition_count; ++i) {
        const PartitionEntry& entry = table.Partition[i];
        if (entry.Type == 0)
            continue;
        report.print("  {} {:10} type {:02X}  sector {:10}  {:10} sectors\n", i + 1, name_of(entry.Type),
                     entry.Type, entry.Start.get(), entry.Count.get());
        partitions.push_back({{"number", i + 1},
                              {"use", name_of(entry.Type)},
                              {"type", entry.Type},
                              {"start_sector", entry.Start.get()},
                              {"sectors", entry.Count.get()}});
    }
    report["partitions"] = std::move(partitions);
}

}  // namespace image_tool
