// SPDX-License-Identifier: MIT
#include "campaign/world.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "campaign/local_area.h"
#include "campaign/streams.h"
#include "formats/image_area.h"

namespace campaign {
namespace {

// Zeros come in whole chunks, with some sectors of data among them here and there.
std::vector<Generation> first_contents(Stream& stream, const DiskPlan& disk)
{
    std::vector<Generation> contents(disk.sectors, initial);
    if (!disk.zeros)
        return contents;
    for (std::uint32_t chunk = 0; chunk < disk.sectors; chunk += formats::chunk_sectors) {
        if (stream.chance(0.5))
            continue;
        const std::uint32_t end = std::min(chunk + formats::chunk_sectors, disk.sectors);
        std::fill(contents.begin() + static_cast<int>(chunk), contents.begin() + static_cast<int>(end),
                  zeros);
        if (stream.chance(0.2))
            contents[stream.between(chunk, end - 1)] = initial;
    }
    return contents;
}

}  // namespace

World::World(Plan drawn, CanaryKind kind)
    : plan(std::move(drawn)), canary(kind, plan.seed), main(plan, 0, canary), slave(plan, 1, canary)
{
    Stream stream(plan.seed, "contents");
    for (unsigned lun = 0; lun < plan.disks.size(); ++lun) {
        const auto contents = first_contents(stream, plan.disks[lun]);
        models.emplace_back(lun, contents, generations);
        if (!plan.disks[lun].mirrored && !plan.boots_locally() && !plan.disks[lun].ram_cache())
            models.back().set_one_truth();
        for (std::uint32_t lba = 0; lba < contents.size(); ++lba)
            store({lun, lba}, contents[lba]);
    }
    if (plan.boots_locally())
        local = make_local_disk(plan.local);
}

void World::store(Place place, Generation generation)
{
    const Sector sector = content(place, generation);
    for (BlockServer* server : {&main, &slave})
        std::ranges::copy(sector, server->store(place.lun).bytes().begin() +
                                      static_cast<std::ptrdiff_t>(place.lba) * formats::sector_bytes);
}

std::span<const std::uint8_t> World::stored(BlockServer& server, Place place) const
{
    return std::span(server.store(place.lun).bytes())
        .subspan(std::size_t{place.lba} * formats::sector_bytes, formats::sector_bytes);
}

Generation World::stored_generation(BlockServer& server, Place place)
{
    const auto sector = stored(server, place);
    const auto named = name_of(place, sector);
    if (named && generations.known(*named))
        return named->generation;
    // A block that is written while it is being written back leaves as it is at that moment, fragment by
    // fragment; it is to be written back once more, which the end of the start can forestall.
    const auto newest = generations.newest_part(place, sector);
    if (!newest || !plan.disks[place.lun].ram_cache())
        fail(fmt::format("server {} stores what was never written to LUN {} LBA {}: {}",
                         server.address().Ip[3], place.lun, place.lba, describe(sector)));
    coverage.add("cache: sectors left as a mixture");
    return *newest;
}

}  // namespace campaign
