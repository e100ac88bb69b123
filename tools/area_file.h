// SPDX-License-Identifier: MIT
// The sectors of an image area, read-only and never past its end.
#pragma once

#include <cstdint>
#include <string>

#include "formats/image_area.h"
#include "tools/area_name.h"
#include "tools/file.h"

namespace image_tool {

class AreaFile {
public:
    // Throws ToolError when the file cannot be opened or has no such partition.
    explicit AreaFile(const std::string& name, InUse in_use = InUse::refuse);

    const std::string& name() const { return name_.text; }
    const AreaPlace& place() const { return place_; }
    const InputFile& file() const { return file_; }
    // Whether another program may be writing to it.
    bool is_in_use() const { return is_in_use_; }
    // Whole sectors, at most as many as 32 bits can number.
    std::uint32_t sectors() const { return sectors_; }

    bool has(std::uint32_t sector, std::uint32_t count) const
    {
        return sector <= sectors_ && count <= sectors_ - sector;
    }
    // Fills the object from this sector on. False: the area ends before; an object keeps what it was.
    template <typename Object>
    bool read(std::uint32_t sector, Object& object) const
    {
        return read_bytes(sector, std::as_writable_bytes(std::span(&object, 1)));
    }
    // The size is a multiple of 512.
    bool read_bytes(std::uint32_t sector, std::span<std::byte> data) const;

private:
    AreaName name_;
    InputFile file_;
    bool is_in_use_;
    AreaPlace place_;
    std::uint32_t sectors_;
};

}  // namespace image_tool
