// SPDX-License-Identifier: MIT
// A disk in the other form: a raw disk of an area, an area of a raw disk or an NBD export.
#include "tools/area_name.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/nbd_disk.h"

namespace image_tool {

int convert_disk(const Options& options, Report& report)
{
    const std::string &from = options.area, &to = options.file;
    if (from != "-" && !is_nbd_uri(from) && InputFile(AreaName(from).path).is_same_as(AreaName(to).path))
        throw ToolError(to + ": is the file to read from");
    const auto disk = open_disk(from, options.lun, options.in_use);
    const auto* const area = dynamic_cast<const AreaDisk*>(disk.get());
    const auto format = options.format != Options::Format::other ? options.format
                        : area != nullptr                        ? Options::Format::raw
                                                                 : Options::Format::area;
    if (format == Options::Format::raw)
        return write_raw(*disk, from, to, options, report);
    if (area != nullptr && area->unknown_sectors() != 0 && !options.allow_absent) {
        report.print("{}: is no whole copy of the disk; --allow-absent takes zeros for what is absent\n",
                     from);
        return 1;
    }
    return write_area(*disk, from, to, options, report);
}

}  // namespace image_tool
