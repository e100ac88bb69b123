// SPDX-License-Identifier: MIT
// What local boot code does before the driver: it finds the images on the local disk and the first sector of
// the disk that the machine boots, and says in the boot parameter block that it booted from there. Used by
// the main thread before the machine runs.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "formats/boot_block.h"
#include "formats/image_area.h"
#include "station/unique_fd.h"

namespace station {

using Sector = std::array<std::uint8_t, formats::sector_bytes>;

// The local disk's file. Held against other stations as long as the object lives.
class LocalDiskFile {
public:
    // Throws std::runtime_error, in one line, for what is no local disk with a place for a system image.
    explicit LocalDiskFile(const std::string& path);

    bool has_temporary_image() const { return temporary_; }
    // LBA 0 of LUN 0 as the system image has it.
    std::optional<Sector> first_sector() const;

private:
    bool read(std::uint64_t sector, std::span<std::uint8_t> bytes) const;
    template <typename Block>
    bool read_block(std::uint32_t sector, Block& block) const;

    UniqueFd file_;
    std::uint32_t system_start_ = 0, system_sectors_ = 0;
    bool temporary_ = false;
};

// The same disks and servers, booted from the local disk, which counts as one disk more. Without a server to
// check the system image against, there is no synchronisation.
formats::Boot_Param local_boot_block(formats::Boot_Param block, bool server_answers);

// The number in the local disk's name: it comes after the LUNs.
unsigned local_disk_number(const formats::Boot_Param& block);

// Image descriptor and partition sector, as they stand in low memory from a 16-byte boundary on.
std::vector<std::uint8_t> image_descriptor(const Sector& partition_sector);

}  // namespace station
