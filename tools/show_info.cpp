// SPDX-License-Identifier: MIT
// The header of an image area, in words.
#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/image_area.h"
#include "tools/windows_time.h"

namespace image_tool {

using namespace formats;

namespace {

double megabytes(std::uint64_t sectors)
{
    return static_cast<double>(sectors) * sector_bytes / (1 << 20);
}

void show_place(const AreaFile& area, std::FILE* out)
{
    fmt::print(out, "area        {} sectors ({:.1f} MB)", area.sectors(), megabytes(area.sectors()));
    if (area.place().partition != 0)
        fmt::print(out, ", partition {} of type {:02X} from sector {} on", area.place().partition,
                   area.place().type, area.place().start_bytes / sector_bytes);
    else
        fmt::print(out, ", {:.1f} MB stored", static_cast<double>(area.file().stored_bytes()) / (1 << 20));
    fmt::print(out, "\n");
}

void show_synchronisation(const ImageHeader& header, std::FILE* out)
{
    const std::uint32_t chunks = chunk_count(header.Size.get());
    if (header.Sync_Tag.get() == 0 && header.Sync_Pos.get() == 0)
        fmt::print(out, "copied      never from a server\n");
    else
        fmt::print(out, "copied      up to chunk {} of {} of the server's image of tag {}\n",
                   header.Sync_Pos.get(), chunks, header.Sync_Tag.get());
}

}  // namespace

int show_info(const Options& options, std::FILE* out)
{
    const AreaFile area(options.area);
    ImageHeader header;
    if (!area.read(0, header) || !is_image_header(header))
        throw DamagedArea(options.area + ": not an image area (no header)");
    const std::uint32_t sum = image_checksum(&header);
    show_place(area, out);
    fmt::print(out, "disk        {} sectors ({:.1f} MB), {} chunks\n", header.Size.get(),
               megabytes(header.Size.get()), chunk_count(header.Size.get()));
    fmt::print(out, "created     {}\n", time_text(header.CreateTime.get()));
    fmt::print(out, "modified    {}, before that {}\n", time_text(header.Modify_Time.get()),
               time_text(header.Prev_Time.get()));
    fmt::print(out, "tag         {}\n", header.ModifyTag.get());
    show_synchronisation(header, out);
    fmt::print(out, "used        {} sectors ({:.1f} MB), {} of them for the map\n", header.Used.get(),
               megabytes(header.Used.get()), header.Map_Secs.get());
    fmt::print(out, "first LBA   at sector {} of chunk 0 (Sec_Shift {})\n",
               header.Sec_Shift.get() != 0 ? 0 : 1, header.Sec_Shift.get());
    fmt::print(out, "checksum    {:08X}{}\n", header.ChkSum.get(),
               header.ChkSum.get() == sum ? "" : fmt::format(", should be {:08X}", sum));
    return 0;
}

}  // namespace image_tool
