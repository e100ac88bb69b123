// SPDX-License-Identifier: MIT
#include "campaign/settle.h"

#include <algorithm>

#include <fmt/format.h>

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

// The server that has all that was written is the one that a mirrored disk goes on with; someone who looks
// after the servers copies it to the other.
void expect_stored(World& world, unsigned lun, Kept kept)
{
    const bool mirrored = world.plan.disks[lun].mirrored;
    const std::string main_wrong = first_wrong(world, world.main, lun);
    const std::string slave_wrong = mirrored ? first_wrong(world, world.slave, lun) : main_wrong;
    const bool main_must = !mirrored || kept == Kept::both || kept == Kept::main;
    const bool slave_must = mirrored && (kept == Kept::both || kept == Kept::slave);
    if ((main_must && !main_wrong.empty()) || (slave_must && !slave_wrong.empty()) ||
        (!main_wrong.empty() && !slave_wrong.empty()))
        fail(fmt::format("what is stored: {}; {}", main_wrong, mirrored ? slave_wrong : ""));
    world.coverage.add("mirrors compared", mirrored && kept == Kept::both);
    world.coverage.add("mirrors compared with one server left", mirrored && kept != Kept::both);
    if (slave_must || !main_wrong.empty())
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

void settle_servers(World& world, std::span<const Kept> kept)
{
    for (DiskModel& model : world.models) {
        const unsigned lun = model.lun();
        model.power_off();
        if (world.plan.boots_locally() || world.plan.disks[lun].ram_cache()) {
            take_what_is_stored(world, lun);
        } else {
            expect_stored(world, lun, kept[lun]);
            world.slave.store(lun).bytes() = world.main.store(lun).bytes();
            for (const std::uint32_t lba : model.unsettled())
                model.becomes(lba, world.stored_generation(world.main, {lun, lba}));
        }
        world.main.store(lun).flush();
        world.slave.store(lun).flush();
    }
}

ImageVersions::ImageVersions(World& world) : world_(world) {}

void ImageVersions::publish(const StartPlan& plan, unsigned start)
{
    if (plan.rolled_back && versions_.size() > 1)
        roll_back(start);
    else if (plan.recreated && !versions_.empty())
        make_anew(!plan.unshifted, start);
    else if (plan.new_image && !versions_.empty())
        change_some(start);
    DiskModel& model = world_.models[0];
    std::vector<Generation> now(model.sectors());
    for (std::uint32_t lba = 0; lba < model.sectors(); ++lba)
        now[lba] = world_.stored_generation(world_.main, {0, lba});
    const bool same = !versions_.empty() && versions_.back().contents == now &&
                      versions_.back().create_time == create_time_;
    if (!same)
        add_version(std::move(now));
}

// The next tag that no version of this image had. Chunks whose sectors stay keep theirs.
void ImageVersions::add_version(std::vector<Generation> contents)
{
    const ImageVersion* before = versions_.empty() ? nullptr : &versions_.back();
    const bool go_on = before && before->create_time == create_time_;
    ImageVersion next{.create_time = create_time_,
                      .modify_tag = ++last_tag_,
                      .shifted = shifted_,
                      .tags = {},
                      .contents = std::move(contents)};
    const std::uint32_t sectors = next.image_sector(static_cast<std::uint32_t>(next.contents.size()));
    next.tags.resize((sectors + formats::chunk_sectors - 1) / formats::chunk_sectors);
    if (go_on)
        next.tags = before->tags;
    for (std::uint32_t lba = 0; lba < next.contents.size(); ++lba) {
        if (go_on && before->contents[lba] == next.contents[lba])
            continue;
        const std::uint32_t sector = next.image_sector(lba), chunk = sector / formats::chunk_sectors;
        next.tags[chunk] = next.modify_tag;
        // It travels with the chunk behind it as well.
        if (shifted_ && sector % formats::chunk_sectors == formats::chunk_sectors - 1 &&
            chunk + 1 < next.tags.size())
            next.tags[chunk + 1] = next.modify_tag;
    }
    versions_.push_back(std::move(next));
    put_on_servers();
    if (versions_.size() > 1)
        world_.coverage.add("image: older than the server's at a start");
}

void ImageVersions::put_on_servers()
{
    const auto image = make_server_image(versions_.back(), world_.generations);
    world_.main.image(0).bytes() = image;
    world_.slave.image(0).bytes() = image;
}

// Someone gives the disk what it had once; its image goes on with a new tag.
void ImageVersions::roll_back(unsigned start)
{
    Stream stream(world_.plan.seed, "roll back", start);
    const ImageVersion& version = versions_[stream.below(static_cast<std::uint32_t>(versions_.size()))];
    for (std::uint32_t lba = 0; lba < version.contents.size(); ++lba) {
        world_.store({0, lba}, version.contents[lba]);
        world_.models[0].becomes(lba, version.contents[lba]);
    }
    world_.coverage.add("image: rolled back on the server");
}

// A new image of the disk, whose tags begin again; what it has is not what the old one's tags say.
void ImageVersions::make_anew(bool shifted, unsigned start)
{
    ++create_time_;
    last_tag_ = 0;
    shifted_ = shifted;
    change_some(start);
    world_.coverage.add(shifted ? "image: made anew on the server" : "image: made anew without shift");
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
        for (const ImageVersion& version : versions_)
            if (version.contents[lba] != versions_.back().contents[lba])
                model.may_hold(lba, version.contents[lba], false);
}

void ImageVersions::verify_local() const
{
    const bool there = verify_system_area(*world_.local, world_.plan.local, versions_, world_.generations);
    world_.coverage.add("local disk: areas verified", there);
}

}  // namespace campaign
