// SPDX-License-Identifier: MIT
#include "campaign/settle.h"

#include <algorithm>

#include <fmt/format.h>

#include "campaign/local_area.h"
#include "campaign/streams.h"
#include "formats/image_area.h"

namespace campaign {
namespace {

std::string first_wrong(World& world, BlockServer& server, unsigned lun)
{
    const DiskModel& model = world.models[lun];
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba)
        if (std::string wrong = model.check(lba, world.stored(server, {lun, lba})); !wrong.empty())
            return fmt::format("server {}: {}", server.address().Ip[3], wrong);
    return {};
}

// A server that has all that was written is the one that a mirrored disk goes on with; someone who looks
// after the servers copies it to the other.
void expect_stored(World& world, unsigned lun, bool both)
{
    const bool mirrored = world.plan.disks[lun].mirrored;
    const std::string main_wrong = first_wrong(world, world.main, lun);
    const std::string slave_wrong = mirrored ? first_wrong(world, world.slave, lun) : main_wrong;
    if (both ? !main_wrong.empty() || !slave_wrong.empty() : !main_wrong.empty() && !slave_wrong.empty())
        fail(fmt::format("what is stored: {}; {}", main_wrong, mirrored ? slave_wrong : ""));
    world.coverage.add("mirrors compared", mirrored && both);
    if (!main_wrong.empty())
        world.main.store(lun).bytes() = world.slave.store(lun).bytes();
}

// What was only in the workstation's memory, or in its temporary image, is gone.
void take_what_is_stored(World& world, unsigned lun)
{
    DiskModel& model = world.models[lun];
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba) {
        const Place place{lun, lba};
        Generation left = world.stored_generation(world.main, place);
        if (world.plan.disks[lun].mirrored)
            left = std::max(left, world.stored_generation(world.slave, place));
        if (!model.check(lba, world.content(place, left)).empty())
            world.coverage.add("cache: writes lost with the power");
        model.becomes(lba, left);
        world.store(place, left);
    }
}

}  // namespace

void settle_servers(World& world, bool both)
{
    for (DiskModel& model : world.models) {
        const unsigned lun = model.lun();
        model.power_off();
        if (world.plan.boots_locally() || world.plan.disks[lun].ram_cache()) {
            take_what_is_stored(world, lun);
        } else {
            expect_stored(world, lun, both);
            world.slave.store(lun).bytes() = world.main.store(lun).bytes();
        }
        world.main.store(lun).flush();
        world.slave.store(lun).flush();
    }
}

ImageVersions::ImageVersions(World& world)
    : world_(world),
      chunks_((world.plan.disks[0].sectors + formats::chunk_sectors - 1) / formats::chunk_sectors),
      tags_(chunks_, 0)
{
}

void ImageVersions::publish(bool newer, unsigned start)
{
    DiskModel& model = world_.models[0];
    if (newer && !versions_.empty())
        change_some(start);
    std::vector<Generation> now(model.sectors());
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba)
        now[lba] = world_.stored_generation(world_.main, {0, lba});
    if (!versions_.empty() && versions_.back() == now)
        return;
    const auto tag = static_cast<std::uint32_t>(versions_.size() + 1);
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba) {
        if (!versions_.empty() && versions_.back()[lba] == now[lba])
            continue;
        tags_[lba / formats::chunk_sectors] = tag;
        // It travels with the chunk behind it as well.
        if (lba % formats::chunk_sectors == formats::chunk_sectors - 1 &&
            lba / formats::chunk_sectors + 1 < chunks_)
            tags_[lba / formats::chunk_sectors + 1] = tag;
    }
    const auto image = make_server_image(model.sectors(), 4711, tag, tags_, [&](std::uint32_t lba) {
        return world_.content({0, lba}, now[lba]);
    });
    world_.main.image(0).bytes() = image;
    world_.slave.image(0).bytes() = image;
    versions_.push_back(std::move(now));
    if (versions_.size() > 1)
        world_.coverage.add("image: older than the server's at a start");
}

// Whoever looks after the servers gives the system disk new contents here and there.
void ImageVersions::change_some(unsigned start)
{
    Stream stream(world_.plan.seed, "newer image", start);
    const std::uint32_t sectors = world_.models[0].sectors();
    for (unsigned run = 0; run < 4; ++run) {
        const std::uint32_t first = stream.below(sectors);
        const std::uint32_t end = std::min(sectors, first + stream.between(1, 300));
        const Generation generation = stream.chance(0.2) ? zeros : world_.generations.add(start);
        for (std::uint32_t lba = first; lba < end; ++lba) {
            world_.store({0, lba}, generation);
            world_.models[0].becomes(lba, generation);
        }
    }
}

void ImageVersions::allow_older()
{
    DiskModel& model = world_.models[0];
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba)
        for (const auto& version : versions_)
            if (version[lba] != versions_.back()[lba])
                model.may_hold(lba, version[lba], false);
}

void ImageVersions::verify_local() const
{
    const bool there = verify_system_area(
        *world_.local, world_.plan.local, [this](std::uint32_t lba, std::span<const std::uint8_t> sector) {
            return std::ranges::any_of(versions_, [&](const auto& version) {
                return std::ranges::equal(world_.content({0, lba}, version[lba]), sector);
            });
        });
    world_.coverage.add("local disk: areas verified", there);
}

}  // namespace campaign
