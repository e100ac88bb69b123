// SPDX-License-Identifier: MIT
// What `disk` and `resize` agree on about the partitions of a local disk.
#pragma once

#include <cstdint>

#include "formats/image_area.h"
#include "tools/report.h"

namespace image_tool {

// Partitions start on whole megabytes, as everywhere.
constexpr std::uint64_t alignment_sectors = (1 << 20) / formats::sector_bytes;
constexpr std::uint64_t aligned(std::uint64_t sectors)
{
    return (sectors + alignment_sectors - 1) / alignment_sectors * alignment_sectors;
}

// The size that the option gave. Throws ToolError when it is no number of sectors that a partition table can
// hold.
std::uint64_t whole_sectors(const char* option, std::uint64_t bytes);
// The same, and large enough for an image area.
std::uint64_t partition_sectors(const char* option, std::uint64_t bytes);

void report_partitions(const formats::PartitionSector& table, Report& report);

}  // namespace image_tool
