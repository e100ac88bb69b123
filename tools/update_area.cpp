// SPDX-License-Identifier: MIT
// A server's image area brought up to date with its raw disk: it stays the same image, and workstations that
// have a copy take only the chunks whose tags are new.
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "tools/area_writer.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/nbd_disk.h"
#include "tools/progress.h"
#include "tools/raw_layout.h"
#include "tools/windows_time.h"

namespace image_tool {

using namespace formats;

namespace {

struct Counts {
    std::uint32_t stored = 0, changed = 0, dropped = 0;
};

class Updater {
public:
    Updater(const AreaDisk& old, const DiskContents& disk) : old_(old), disk_(disk) {}

    Counts count() { return run(nullptr); }
    Counts write(AreaWriter& writer) { return run(&writer); }
    std::uint32_t new_tag() const { return old_.area().header().ModifyTag.get() + 1; }

private:
    Counts run(AreaWriter* writer);
    bool is_kept(std::uint32_t chunk, const ChunkContents& contents);

    const AreaDisk& old_;
    const DiskContents& disk_;
    std::unique_ptr<ChunkContents> stored_ = std::make_unique<ChunkContents>();
};

bool Updater::is_kept(std::uint32_t chunk, const ChunkContents& contents)
{
    if (old_.entry(chunk).ModifyTag.get() == 0)
        return false;
    old_.read(chunk, *stored_);
    return std::memcmp(stored_->data, contents.data, sizeof contents.data) == 0;
}

// A chunk that the disk no longer has anything in loses its entry, and workstations throw away theirs.
Counts Updater::run(AreaWriter* writer)
{
    Counts counts;
    std::uint32_t next = 0;
    const auto pass_over = [&](std::uint32_t end) {
        for (; next < end; ++next)
            counts.dropped += old_.entry(next).ModifyTag.get() != 0;
    };
    for_each_chunk_to_store(disk_, "update", [&](std::uint32_t chunk, const ChunkContents& contents) {
        pass_over(chunk);
        next = chunk + 1;
        const bool kept = is_kept(chunk, contents);
        ++counts.stored;
        counts.changed += !kept;
        if (writer != nullptr)
            writer->add(chunk, kept ? old_.entry(chunk).ModifyTag.get() : new_tag(), contents.data);
    });
    return counts;
}

void check_is_updatable(const AreaDisk& old, const DiskContents& disk, const Options& options)
{
    const ImageHeader& header = old.area().header();
    if (old.area().file().place().partition != 0)
        throw ToolError(options.area +
                        ": update makes a new file in the place of the old one, and this is a partition");
    if (header.Sync_Tag.get() != 0 || header.Sync_Pos.get() != 0 || header.Sec_Shift.get() == 0)
        throw ToolError(options.area + ": is a workstation's copy, which brings itself up to date");
    if (header.Size.get() != disk.size_sectors())
        throw ToolError(fmt::format("{}: is of a disk of {} sectors, and {} has {}; create makes a new image",
                                    options.area, header.Size.get(), options.from, disk.size_sectors()));
    if (old.unknown_sectors() != 0)
        throw ToolError(options.area + ": is not whole; create makes a new image");
    if (header.ModifyTag.get() == UINT32_MAX)
        throw ToolError(options.area + ": has used up its tags; create makes a new image");
}

}  // namespace

int update_area(const Options& options, Report& report)
{
    const auto disk = open_raw_disk(options.from, options.in_use);
    const AreaDisk old(options.area, 0, options.in_use);
    check_is_updatable(old, *disk, options);
    const ImageHeader header = old.area().header();
    Updater updater(old, *disk);
    Counts counts = updater.count();
    const bool is_changed = counts.changed != 0 || counts.dropped != 0;
    std::uint32_t tag = header.ModifyTag.get();
    if (is_changed) {
        tag = updater.new_tag();
        OutputFile file(options.area, true);
        AreaWriter writer(file, disk->size_sectors(), UINT32_MAX, tag);
        counts = updater.write(writer);
        writer.finish(header.CreateTime.get(), local_windows_time(), header.Modify_Time.get());
        file.complete(std::uint64_t{writer.used_sectors()} * sector_bytes);
    }
    if (is_changed)
        report.print("{}: tag {}, {} of {} chunks are new, {} are gone\n", options.area, tag, counts.changed,
                     counts.stored, counts.dropped);
    else
        report.print("{}: is up to date, tag {}\n", options.area, tag);
    report["area"] = options.area;
    report["tag"] = tag;
    report["chunks_stored"] = counts.stored;
    report["chunks_changed"] = counts.changed;
    report["chunks_dropped"] = counts.dropped;
    return 0;
}

}  // namespace image_tool
