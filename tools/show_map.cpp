// SPDX-License-Identifier: MIT
// What an image area holds, per LUN: in numbers, as runs of chunks, and as a picture.
#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/image_area.h"
#include "tools/picture.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

constexpr std::size_t runs_listed_max = 20;

struct PresentChunk {
    std::uint32_t chunk;
    std::uint32_t data_sector;
    std::uint32_t tag;
    unsigned sectors;
};

using Chunks = std::vector<PresentChunk>;

std::map<unsigned, Chunks> read_map(const ImageArea& area)
{
    std::map<unsigned, Chunks> luns;
    MapWalk walk = area.walk();
    Progress progress("map", area.header().Map_Secs.get() / map_block_sectors);
    while (const MapChunk* chunk = walk.next()) {
        luns[key_lun(chunk->key)].push_back({key_chunk(chunk->key), chunk->entry.Data_Sec.get(),
                                             chunk->entry.ModifyTag.get(), present_sectors(chunk->entry)});
        progress.at(walk.map_blocks());
    }
    return luns;
}

// Neighbours on the disk and in the area, equally full and of one tag.
bool continues(const PresentChunk& chunk, const PresentChunk& next)
{
    return next.chunk == chunk.chunk + 1 && next.data_sector == chunk.data_sector + chunk_sectors &&
           next.tag == chunk.tag && next.sectors == chunk.sectors;
}

Json show_runs(const Chunks& chunks, std::size_t list_max, Report& report)
{
    Json listed = Json::array();
    std::size_t runs = 0;
    for (std::size_t start = 0, end; start < chunks.size(); start = end) {
        end = start + 1;
        while (end < chunks.size() && continues(chunks[end - 1], chunks[end]))
            ++end;
        if (runs++ < list_max) {
            listed.push_back({{"first_chunk", chunks[start].chunk},
                              {"last_chunk", chunks[end - 1].chunk},
                              {"first_sector", chunks[start].data_sector},
                              {"tag", chunks[start].tag},
                              {"sectors_each", chunks[start].sectors}});
            report.print("  {:9}-{:<9} at sector {:10}  tag {:<10} {:3} sectors each\n", chunks[start].chunk,
                         chunks[end - 1].chunk, chunks[start].data_sector, chunks[start].tag,
                         chunks[start].sectors);
        }
    }
    if (runs > list_max)
        report.print("  and {} more runs (--all lists them)\n", runs - list_max);
    return listed;
}

// The header tells the size of LUN 0; other disks end with their last chunk.
std::uint64_t map_sectors(unsigned lun, const ImageHeader& header, const Chunks& chunks)
{
    const std::uint64_t unused = header.Sec_Shift.get() != 0 ? 0 : 1;
    if (lun == 0)
        return header.Size.get() + unused;
    return (std::uint64_t{chunks.back().chunk} + 1) * chunk_sectors;
}

void show_lun(unsigned lun, const ImageArea& area, const Chunks& chunks, const Options& options,
              Report& report)
{
    const std::uint64_t all = map_sectors(lun, area.header(), chunks);
    Picture picture(all, options.width, options.ascii);
    std::uint64_t sectors = 0, whole = 0;
    for (const PresentChunk& chunk : chunks) {
        const std::uint64_t start = std::uint64_t{chunk.chunk} * chunk_sectors;
        sectors += chunk.sectors;
        whole += chunk.sectors == chunk_sectors || start + chunk.sectors == all;
        picture.add(chunk.chunk, chunk.sectors);
    }
    report.print("LUN {}: {} of {} chunks, {} of them whole; {} sectors present ({:.1f} MB)\n", lun,
                 chunks.size(), (all + chunk_sectors - 1) / chunk_sectors, whole, sectors,
                 static_cast<double>(sectors) * sector_bytes / (1 << 20));
    Json runs = show_runs(chunks, options.all ? SIZE_MAX : runs_listed_max, report);
    report.print("{}", picture.text());
    report["luns"].push_back({{"lun", lun},
                              {"chunks", (all + chunk_sectors - 1) / chunk_sectors},
                              {"chunks_present", chunks.size()},
                              {"chunks_whole", whole},
                              {"sectors_present", sectors},
                              {"runs_listed", std::move(runs)}});
}

}  // namespace

int show_map(const Options& options, Report& report)
{
    const ImageArea area(options.area, InUse::allow);
    if (area.file().is_in_use())
        report.print("in use by a server or a workstation, which may be writing to it\n");
    report["area"] = options.area;
    report["in_use"] = area.file().is_in_use();
    std::map<unsigned, Chunks> luns = read_map(area);
    luns.try_emplace(0);
    for (const auto& [lun, chunks] : luns)
        show_lun(lun, area, chunks, options, report);
    return 0;
}

}  // namespace image_tool
