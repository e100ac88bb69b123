// SPDX-License-Identifier: MIT
#include "tools/area_file.h"

#include <algorithm>

namespace image_tool {

AreaFile::AreaFile(const std::string& name, InUse in_use)
    : name_(name), file_(name_.path), is_in_use_(!file_.lock(in_use)), place_(find_area(file_, name_)),
      sectors_(static_cast<std::uint32_t>(
          std::min<std::uint64_t>(place_.size_bytes / formats::sector_bytes, UINT32_MAX)))
{
}

bool AreaFile::read_bytes(std::uint32_t sector, std::span<std::byte> data) const
{
    if (!has(sector, static_cast<std::uint32_t>(data.size() / formats::sector_bytes)))
        return false;
    file_.read(place_.start_bytes + std::uint64_t{sector} * formats::sector_bytes, data);
    return true;
}

}  // namespace image_tool
