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

void show_place(const AreaFile& area, Report& report)
{
    report.print("area        {} sectors ({:.1f} MB)", area.sectors(), megabytes(area.sectors()));
    if (area.place().partition != 0)
        report.print(", partition {} of type {:02X} from sector {} on", area.place().partition,
                     area.place().type, area.place().start_bytes / sector_bytes);
    else
        report.print(", {:.1f} MB stored", static_cast<double>(area.file().stored_bytes()) / (1 << 20));
    report.print("\n");
}

void show_synchronisation(const ImageHeader& header, Report& report)
{
    const std::uint32_t chunks = chunk_count(header.Size.get());
    if (header.Sync_Tag.get() == 0 && header.Sync_Pos.get() == 0)
        report.print("copied      never from a server\n");
    else
        report.print("copied      up to chunk {} of {} of the server's image of tag {}\n",
                     header.Sync_Pos.get(), chunks, header.Sync_Tag.get());
}

}  // namespace

int show_info(const Options& options, Report& report)
{
    const AreaFile area(options.area, InUse::allow);
    ImageHeader header;
    if (!area.read(0, header) || !is_image_header(header))
        throw DamagedArea(options.area + ": not an image area (no header)");
    const std::uint32_t sum = image_checksum(&header);
    if (area.is_in_use())
        report.print("in use      by a server or a workstation, which may be writing to it\n");
    show_place(area, report);
    report.print("disk        {} sectors ({:.1f} MB), {} chunks\n", header.Size.get(),
                 megabytes(header.Size.get()), chunk_count(header.Size.get()));
    report.print("created     {}\n", time_text(header.CreateTime.get()));
    report.print("modified    {}, before that {}\n", time_text(header.Modify_Time.get()),
                 time_text(header.Prev_Time.get()));
    report.print("tag         {}\n", header.ModifyTag.get());
    show_synchronisation(header, report);
    report.print("used        {} sectors ({:.1f} MB), {} of them for the map\n", header.Used.get(),
                 megabytes(header.Used.get()), header.Map_Secs.get());
    report.print("first LBA   at sector {} of chunk 0 (Sec_Shift {})\n", header.Sec_Shift.get() != 0 ? 0 : 1,
                 header.Sec_Shift.get());
    report.print("checksum    {:08X}{}\n", header.ChkSum.get(),
                 header.ChkSum.get() == sum ? "" : fmt::format(", should be {:08X}", sum));
    report["area"] = options.area;
    report["in_use"] = area.is_in_use();
    report["area_sectors"] = area.sectors();
    report["stored_bytes"] = area.file().stored_bytes();
    report["partition"] = area.place().partition;
    report["disk_sectors"] = header.Size.get();
    report["chunks"] = chunk_count(header.Size.get());
    report["created"] = time_text(header.CreateTime.get());
    report["modified"] = time_text(header.Modify_Time.get());
    report["modified_before"] = time_text(header.Prev_Time.get());
    report["tag"] = header.ModifyTag.get();
    report["synchronised_tag"] = header.Sync_Tag.get();
    report["synchronised_chunk"] = header.Sync_Pos.get();
    report["used_sectors"] = header.Used.get();
    report["map_sectors"] = header.Map_Secs.get();
    report["sector_shift"] = header.Sec_Shift.get() != 0;
    report["checksum_is_right"] = header.ChkSum.get() == sum;
    return 0;
}

}  // namespace image_tool
