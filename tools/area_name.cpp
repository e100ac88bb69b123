// SPDX-License-Identifier: MIT
#include "tools/area_name.h"

#include <unistd.h>

#include <fmt/format.h>

#include "formats/image_area.h"
#include "tools/errors.h"

namespace image_tool {

using namespace formats;

namespace {

bool names_a_partition(const std::string& text)
{
    return text == "system" || text == "temporary" ||
           (text.size() == 1 && text[0] >= '1' && text[0] < '1' + static_cast<int>(partition_count));
}

bool is_asked_for(const std::string& asked, unsigned index, const PartitionEntry& entry)
{
    if (asked == "system")
        return entry.Type == partition_system_image;
    if (asked == "temporary")
        return entry.Type == partition_temporary_image;
    return asked == std::to_string(index + 1) && entry.Type != 0;
}

}  // namespace

AreaName::AreaName(const std::string& name) : text(name), path(name)
{
    const std::size_t colon = name.rfind(':');
    if (colon == name.npos || !names_a_partition(name.substr(colon + 1)) || access(name.c_str(), F_OK) == 0)
        return;
    path = name.substr(0, colon);
    partition = name.substr(colon + 1);
}

AreaPlace find_area(const InputFile& file, const AreaName& name)
{
    if (name.partition.empty())
        return {.size_bytes = file.size_bytes()};
    PartitionSector table;
    if (file.size_bytes() < sizeof table)
        throw ToolError(file.path() + ": too short for a partition table");
    file.read(0, std::as_writable_bytes(std::span(&table, 1)));
    for (unsigned i = 0; i < partition_count; ++i) {
        const PartitionEntry& entry = table.Partition[i];
        if (!is_asked_for(name.partition, i, entry))
            continue;
        const std::uint64_t start = entry.Start.get(), count = entry.Count.get();
        if (start == 0 || count == 0 || (start + count) * sector_bytes > file.size_bytes())
            throw ToolError(fmt::format("{}: partition {} (sector {}, {} sectors) does not fit the disk",
                                        file.path(), i + 1, start, count));
        if (overlaps_another(table, entry))
            throw ToolError(fmt::format("{}: partition {} overlaps another one", file.path(), i + 1));
        return {start * sector_bytes, count * sector_bytes, i + 1, entry.Type};
    }
    throw ToolError(fmt::format("{}: has no partition '{}'", file.path(), name.partition));
}

}  // namespace image_tool
