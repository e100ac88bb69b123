// SPDX-License-Identifier: MIT
#include "station/local_boot.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "formats/image_descriptor.h"

namespace station {

using namespace formats;

LocalDiskFile::LocalDiskFile(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC))
{
    if (!file_)
        throw std::system_error(errno, std::generic_category(), path);
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        throw std::runtime_error(path + ": is in use by another program");
    PartitionSector table;
    if (!read(0, {reinterpret_cast<std::uint8_t*>(&table), sizeof table}) ||
        table.Signature.get() != boot_signature)
        throw std::runtime_error(path + ": has no partition table (qrn-image disk makes a local disk)");
    const off_t size = lseek(file_.get(), 0, SEEK_END);
    const std::uint64_t disk_sectors = static_cast<std::uint64_t>(std::max<off_t>(size, 0)) / sector_bytes;
    for (const PartitionEntry& entry : table.Partition) {
        const bool is_system = entry.Type == partition_system_image;
        if (!is_system && entry.Type != partition_temporary_image)
            continue;
        if (entry.Start.get() == 0 || entry.Count.get() < first_block_sector ||
            std::uint64_t{entry.Start.get()} + entry.Count.get() > disk_sectors)
            throw std::runtime_error(path + ": is too small for its partitions");
        if (overlaps_another(table, entry))
            throw std::runtime_error(path + ": a partition for an image overlaps another one");
        if (!is_system) {
            temporary_ = true;
        } else if (system_sectors_ == 0) {
            system_start_ = entry.Start.get();
            system_sectors_ = entry.Count.get();
        }
    }
    if (system_sectors_ == 0)
        throw std::runtime_error(path + ": has no partition of type 51 for a system image");
}

bool LocalDiskFile::read(std::uint64_t sector, std::span<std::uint8_t> bytes) const
{
    return pread(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(sector * sector_bytes)) ==
           static_cast<ssize_t>(bytes.size());
}

// A block of the map; nothing that the disk says is taken on trust.
template <typename Block>
bool LocalDiskFile::read_block(std::uint32_t sector, Block& block) const
{
    return sector >= root_sector && std::uint64_t{sector} + map_block_sectors <= system_sectors_ &&
           read(std::uint64_t{system_start_} + sector,
                {reinterpret_cast<std::uint8_t*>(&block), sizeof block});
}

std::optional<Sector> LocalDiskFile::first_sector() const
{
    ImageHeader header;
    if (!read(system_start_, {reinterpret_cast<std::uint8_t*>(&header), sizeof header}) ||
        !is_image_header(header) || header.ChkSum.get() != image_checksum(&header) ||
        header.Used.get() < first_block_sector)
        return {};
    const std::uint32_t map_sector = header.Sec_Shift.get() != 0 ? 0 : 1;
    RootTable root;
    MapBlock level1, level2;
    LeafBlock leaf;
    if (!read_block(root_sector, root) || !read_block(root.Level1_Sec[0].get(), level1) ||
        !read_block(level1.Next_Sec[0].get(), level2) || !read_block(level2.Next_Sec[0].get(), leaf))
        return {};
    const Entry_64K& entry = leaf.Chunk[0];
    const std::uint64_t data_sector = std::uint64_t{entry.Data_Sec.get()} + map_sector;
    Sector sector;
    if (entry.ModifyTag.get() == 0 || !sector_flag(entry.SecFlag, map_sector) ||
        data_sector < first_block_sector || data_sector >= system_sectors_ ||
        !read(system_start_ + data_sector, sector))
        return {};
    return sector;
}

Boot_Param local_boot_block(Boot_Param block, bool server_answers)
{
    block.Boot_Mode.set(boot_mode_local_image);
    if (block.Local_Nums == 0) {
        ++block.Local_Nums;
        ++block.Disk_Nums;
    }
    if (!server_answers)
        block.Boot_Flags |= boot_flag_no_image_sync;
    return block;
}

unsigned local_disk_number(const Boot_Param& block)
{
    return std::clamp<unsigned>(block.Lun_Nums, 1, disk_count_max);
}

std::vector<std::uint8_t> image_descriptor(const Sector& partition_sector)
{
    ImageDescriptor descriptor{};
    std::memcpy(descriptor.Mark, image_descriptor_mark, sizeof descriptor.Mark);
    descriptor.Kind.set(image_descriptor_kind);
    constexpr std::size_t sector_place = paragraph_bytes;
    descriptor.Displacement.set(sector_place - image_descriptor_jump_bytes);
    std::vector<std::uint8_t> bytes(sector_place + partition_sector.size());
    std::memcpy(bytes.data(), &descriptor, sizeof descriptor);
    std::copy(partition_sector.begin(), partition_sector.end(), bytes.begin() + sector_place);
    return bytes;
}

}  // namespace station
