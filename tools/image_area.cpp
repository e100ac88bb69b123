// SPDX-License-Identifier: MIT
#include "tools/image_area.h"

#include <bit>

#include <fmt/format.h>

#include "tools/errors.h"

namespace image_tool {

using namespace formats;

ImageArea::ImageArea(const std::string& name, InUse in_use) : file_(name, in_use)
{
    if (!file_.read(0, header_) || !is_image_header(header_))
        throw DamagedArea(name + ": not an image area (no header)");
    if (header_.ChkSum.get() != image_checksum(&header_))
        throw DamagedArea(fmt::format("{}: the checksum of the header is {:08X} and should be {:08X}", name,
                                      header_.ChkSum.get(), image_checksum(&header_)));
    if (header_.Used.get() != root_sector && !file_.read(root_sector, root_))
        throw DamagedArea(name + ": ends before its root table");
}

MapWalk ImageArea::walk() const
{
    return {file_, root_, header_.Used.get(), [this](MapFault fault, const std::string& what) {
                if (fault == MapFault::before_parent)
                    return;
                throw DamagedArea(fmt::format("{}: damaged: {}: {} (qrn-image check lists all faults)",
                                              file_.name(), to_text(fault), what));
            }};
}

bool has_image_header(const AreaFile& file)
{
    ImageHeader header;
    return file.read(0, header) && is_image_header(header);
}

const char* to_text(MapFault fault)
{
    switch (fault) {
    case MapFault::not_a_block:
        return "no block can start there";
    case MapFault::beyond_area:
        return "past the end of the area";
    case MapFault::beyond_used:
        return "past Used";
    case MapFault::referenced_twice:
        return "overlaps a block that has its place in the map already";
    case MapFault::unreachable:
        return "no key leads to it";
    case MapFault::before_parent:
        return "lies before the block that names it";
    }
    return "";
}

unsigned present_sectors(const Entry_64K& entry)
{
    int count = 0;
    for (const std::uint8_t flags : entry.SecFlag)
        count += std::popcount(flags);
    return static_cast<unsigned>(count);
}

}  // namespace image_tool
