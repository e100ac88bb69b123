// SPDX-License-Identifier: MIT
// An image area that is good enough to read from.
#pragma once

#include <cstdint>
#include <string>

#include "formats/image_area.h"
#include "tools/area_file.h"
#include "tools/map_walk.h"

namespace image_tool {

// Chunks of 128 sectors that a disk of this size has.
constexpr std::uint32_t chunk_count(std::uint32_t size_sectors)
{
    return static_cast<std::uint32_t>((std::uint64_t{size_sectors} + formats::chunk_sectors - 1) /
                                      formats::chunk_sectors);
}

class ImageArea {
public:
    // Throws DamagedArea when the driver would not take the header, or the root table is cut off.
    explicit ImageArea(const std::string& name, InUse in_use = InUse::refuse);

    const AreaFile& file() const { return file_; }
    const formats::ImageHeader& header() const { return header_; }
    // The walk throws DamagedArea at the first fault that makes the contents doubtful.
    MapWalk walk() const;

private:
    AreaFile file_;
    formats::ImageHeader header_{};
    formats::RootTable root_{};
};

// Whether a file or partition looks like an area, so that its header has a right to be judged.
bool has_image_header(const AreaFile& file);

const char* to_text(MapFault fault);

unsigned present_sectors(const formats::Entry_64K& entry);

}  // namespace image_tool
