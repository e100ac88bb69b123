// SPDX-License-Identifier: MIT
#include "server/image_check.h"

#include <span>
#include <stdexcept>

#include <fmt/format.h>

#include "formats/image_area.h"

namespace server {

void check_image_area(BlockStore& area, const std::string& path, std::uint64_t disk_sectors)
{
    const auto refuse = [&](const std::string& reason) { throw std::runtime_error(path + ": " + reason); };
    formats::ImageHeader header;
    if (area.size_bytes() < sizeof header ||
        !area.read(0, {reinterpret_cast<std::uint8_t*>(&header), sizeof header}) ||
        !formats::is_image_header(header))
        refuse("is no image area (qrn-image create makes one)");
    if (header.ChkSum.get() != formats::image_checksum(&header))
        refuse("the header of the image area is damaged");
    if (header.Size.get() != disk_sectors)
        refuse(fmt::format("is the image of a disk of {} sectors, and this one has {}", header.Size.get(),
                           disk_sectors));
    if (std::uint64_t{header.Used.get()} * formats::sector_bytes > area.size_bytes())
        refuse("the image area is cut short");
}

}  // namespace server
