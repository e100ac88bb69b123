// SPDX-License-Identifier: MIT
// Another size for a local disk and its partitions. The system image stays where it is, with what it holds;
// the temporary image begins empty at every start anyway and moves behind it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/in_place_file.h"
#include "tools/partition_size.h"

namespace image_tool {

using namespace formats;

namespace {

PartitionEntry* find(PartitionSector& table, std::uint8_t type)
{
    for (PartitionEntry& entry : table.Partition)
        if (entry.Type == type)
            return &entry;
    return nullptr;
}

std::uint64_t end_of(const PartitionEntry& entry)
{
    return std::uint64_t{entry.Start.get()} + entry.Count.get();
}

void refuse_foreign_partitions(const std::string& path, const PartitionSector& table)
{
    if (table.Signature.get() != boot_signature)
        throw ToolError(path + ": has no partition table");
    for (const PartitionEntry& entry : table.Partition)
        if (entry.Type != 0 && entry.Type != partition_system_image &&
            entry.Type != partition_temporary_image)
            throw ToolError(path +
                            ": has other partitions than those for images; leave them to a partition editor");
}

void refuse_to_cut(const InPlaceFile& file, const PartitionEntry& system, std::uint64_t count)
{
    ImageHeader header;
    if (!file.read(std::uint64_t{system.Start.get()} * sector_bytes,
                   std::as_writable_bytes(std::span(&header, 1))) ||
        !is_image_header(header) || header.Used.get() <= count)
        return;
    throw ToolError(fmt::format("--system: the image there takes {} bytes",
                                std::uint64_t{header.Used.get()} * sector_bytes));
}

PartitionEntry& require(PartitionEntry* entry, const char* option)
{
    if (entry == nullptr)
        throw ToolError(std::string(option) + ": the disk has no such partition");
    return *entry;
}

void resize(const InPlaceFile& file, PartitionSector& table, const Options& options)
{
    PartitionEntry* const system = find(table, partition_system_image);
    PartitionEntry* const temporary = find(table, partition_temporary_image);
    if (options.system_bytes != 0) {
        const std::uint64_t count = partition_sectors("--system", options.system_bytes);
        refuse_to_cut(file, require(system, "--system"), count);
        system->Count.set(static_cast<std::uint32_t>(count));
    }
    if (options.temporary_bytes != 0)
        require(temporary, "--temporary")
            .Count.set(static_cast<std::uint32_t>(partition_sectors("--temporary", options.temporary_bytes)));
    if (system == nullptr || temporary == nullptr)
        return;
    if (temporary->Start.get() > system->Start.get())
        temporary->Start.set(static_cast<std::uint32_t>(aligned(end_of(*system))));
    else if (end_of(*temporary) > system->Start.get())
        throw ToolError("--temporary: reaches into the system image, which lies behind it and stays there");
}

void refuse_what_does_not_fit(const PartitionSector& table, std::uint64_t disk_sectors)
{
    for (const PartitionEntry& entry : table.Partition)
        if (entry.Type != 0 && end_of(entry) > disk_sectors)
            throw ToolError(fmt::format("the partitions end at sector {}, and the disk at {}", end_of(entry),
                                        disk_sectors));
}

}  // namespace

int resize_disk(const Options& options, Report& report)
{
    const InPlaceFile file(options.file);
    PartitionSector table;
    if (!file.read(0, std::as_writable_bytes(std::span(&table, 1))))
        throw ToolError(options.file + ": too short for a partition table");
    refuse_foreign_partitions(options.file, table);
    const std::uint64_t size_bytes = options.size_bytes != 0 ? options.size_bytes : file.size_bytes();
    const std::uint64_t disk_sectors = whole_sectors("--size", size_bytes / sector_bytes * sector_bytes);
    if (options.size_bytes % sector_bytes != 0)
        whole_sectors("--size", options.size_bytes);
    resize(file, table, options);
    refuse_what_does_not_fit(table, disk_sectors);
    // The table never names what the disk lacks.
    if (size_bytes > file.size_bytes())
        file.resize(size_bytes);
    file.write(0, std::as_bytes(std::span(&table, 1)));
    file.flush();
    if (size_bytes < file.size_bytes())
        file.resize(size_bytes);
    report.print("{}: {} sectors\n", options.file, disk_sectors);
    report["disk"] = options.file;
    report["sectors"] = disk_sectors;
    report_partitions(table, report);
    return 0;
}

}  // namespace image_tool
