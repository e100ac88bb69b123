// SPDX-License-Identifier: MIT
// What a disk holds, chunk by chunk, whether it comes from a raw file or from an image area.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/image_area.h"

namespace image_tool {

// Sectors that are not present, or lie past the disk's end, are zeros in data.
struct ChunkContents {
    std::bitset<formats::chunk_sectors> present;
    std::byte data[formats::chunk_bytes];

    std::span<const std::byte> sector(unsigned index) const
    {
        return {data + index * formats::sector_bytes, formats::sector_bytes};
    }
};

constexpr std::uint32_t no_chunk = 0xFFFFFFFF;

class DiskContents {
public:
    virtual ~DiskContents() = default;

    virtual std::uint32_t size_sectors() const = 0;
    // The first chunk from this one on that may hold anything but zeros; no_chunk after the last.
    // Chunk n is the disk's LBAs from 128 n on.
    virtual std::uint32_t next_chunk(std::uint32_t from) const = 0;
    virtual void read(std::uint32_t chunk, ChunkContents& contents) const = 0;
};

// All sectors of a raw disk are present.
class RawDisk : public DiskContents {
public:
    // Throws ToolError when the file's size is not that of a disk, or it is an image area.
    explicit RawDisk(const std::string& path, InUse in_use = InUse::refuse);

    const InputFile& file() const { return file_; }
    std::uint32_t size_sectors() const override { return size_sectors_; }
    std::uint32_t next_chunk(std::uint32_t from) const override;
    void read(std::uint32_t chunk, ChunkContents& contents) const override;

private:
    InputFile file_;
    std::uint32_t size_sectors_;
};

// The chunks of one LUN of an area.
class AreaDisk : public DiskContents {
public:
    // Throws DamagedArea, and ToolError when the area holds other disks but not this one.
    AreaDisk(const std::string& name, unsigned lun, InUse in_use = InUse::refuse);

    const ImageArea& area() const { return area_; }
    // Sectors that the map says are present, but past the disk's end.
    std::uint64_t sectors_past_end() const { return sectors_past_end_; }
    // Sectors that are absent and may be anything but zeros on the server: those that a workstation has not
    // copied yet. More than 0 also when all are there, and some are of an older version of the disk.
    std::uint64_t unknown_sectors() const;
    // The chunk's entry in the map as it is stored; none: all zeros.
    formats::Entry_64K entry(std::uint32_t chunk) const;
    std::uint32_t size_sectors() const override { return area_.header().Size.get(); }
    std::uint32_t next_chunk(std::uint32_t from) const override;
    void read(std::uint32_t chunk, ChunkContents& contents) const override;

private:
    struct Stored {
        std::uint32_t chunk;
        formats::Entry_64K entry;
    };

    bool is_server_image() const;
    void refuse_other_luns(unsigned lun, unsigned luns_seen) const;
    std::vector<Stored>::const_iterator first_from(std::uint32_t chunk) const;
    void add(std::uint64_t map_sector, unsigned count, unsigned to, ChunkContents& contents) const;
    std::uint64_t first_map_sector() const { return area_.header().Sec_Shift.get() != 0 ? 0 : 1; }

    ImageArea area_;
    std::vector<Stored> stored_;  // in order
    std::uint64_t sectors_past_end_ = 0;
};

// An area when there is a header, an NBD export when it is a URI, else a raw disk. "-" is standard input.
std::unique_ptr<DiskContents> open_disk(const std::string& name, unsigned lun, InUse in_use);
// The same, but areas are refused.
std::unique_ptr<DiskContents> open_raw_disk(const std::string& name, InUse in_use);

// Sectors of a disk of this size. Throws ToolError when there is none.
std::uint32_t disk_sectors(const std::string& name, std::uint64_t size_bytes);

}  // namespace image_tool
