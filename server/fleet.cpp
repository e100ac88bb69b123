// SPDX-License-Identifier: MIT
// Boots, disks and packets; the commands are in fleet_commands.cpp.
#include "server/fleet.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <fmt/format.h>

#include "server/boot_parameters.h"
#include "server/log.h"
#include "server/overlay_file.h"

namespace server {

using formats::BootRequest;
using Json = nlohmann::json;

namespace {

constexpr unsigned close_wait_ms = 2000;
constexpr unsigned open_again_ms = 5000;
constexpr std::size_t workstations_max = 10000;

std::array<std::uint8_t, 4> id_of(const FleetDisk& disk, unsigned lun)
{
    const std::uint32_t standard =
        0x51520000 | (lun + 1) | (disk.mirror ? std::uint32_t{formats::disk_id_mirror} << 8 : 0);
    const std::uint32_t id = disk.id.value_or(standard);
    return {static_cast<std::uint8_t>(id >> 24), static_cast<std::uint8_t>(id >> 16),
            static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id)};
}

}  // namespace

Fleet::Fleet(const FleetConfig& config, const std::string& config_path, const Peer& self, WorkPool& pool,
             ImageShelf::Open open, Clock clock)
    : config_path_(config_path), self_(self), pool_(pool), clock_(std::move(clock)), shelf_(open),
      boot_service_(boot_sink_, [this](const BootRequest& request) {
          std::lock_guard guard(lock_);
          return decide_boot(request, boot_from_);
      })
{
    std::lock_guard guard(lock_);
    std::filesystem::create_directories(config.state + "/overlays");
    config_ = config;
    load();
    apply(config);
    save();
    boot_strand_ = std::make_shared<Strand>(
        pool_, Strand::Handlers{[this](const Peer& from, std::span<const std::uint8_t> packet) {
                                    boot_from_ = from;
                                    boot_service_.receive(from, packet);
                                },
                                nullptr, nullptr, nullptr});
    for (auto& [name, workstation] : workstations_)
        if (workstation.booted)
            begin(workstation, false);
}

Fleet::~Fleet()
{
    boot_strand_->close(close_wait_ms);
    std::lock_guard guard(lock_);
    for (auto& [name, workstation] : workstations_)
        for (const auto& lane : workstation.lanes)
            lane->close(0);
}

void Fleet::receive(const Peer& from, std::span<const std::uint8_t> packet)
{
    {
        std::shared_lock guard(routes_lock_);
        if (std::ranges::none_of(allow_, [&](const Network& network) { return network.contains(from.Ip); })) {
            ++drops_.strangers;
            return;
        }
    }
    if (packet.size() >= sizeof formats::boot_mark &&
        std::memcmp(packet.data(), formats::boot_mark, sizeof formats::boot_mark) == 0) {
        if (!boot_strand_->add_packet(from, packet))
            ++drops_.too_many;
        return;
    }
    if (packet.size() < formats::request_bytes) {
        ++drops_.short_packet;
        return;
    }
    const auto lane =
        lane_of(DiskLane::key_of(packet.data(), packet.data() + offsetof(formats::WireHeader, Disk_Parm)));
    if (!lane)
        ++drops_.unknown_disk;
    else if (!lane->is_for(from))
        ++drops_.other_address;
    else if (!lane->receive(from, packet))
        ++drops_.too_many;
}

std::shared_ptr<DiskLane> Fleet::lane_of(std::uint64_t key) const
{
    std::shared_lock guard(routes_lock_);
    const auto found = routes_.find(key);
    return found == routes_.end() ? nullptr : found->second;
}

Fleet::Workstation* Fleet::find(const HardwareAddress& hardware)
{
    for (auto& [name, workstation] : workstations_)
        if (workstation.hardware == hardware)
            return &workstation;
    return nullptr;
}

Fleet::Workstation* Fleet::find(const std::string& name)
{
    if (const auto found = workstations_.find(name); found != workstations_.end())
        return &found->second;
    const auto hardware = hardware_of(name);
    return hardware ? find(*hardware) : nullptr;
}

// With the lowest number that is free: part of what its packets are told apart by.
Fleet::Workstation& Fleet::add(const std::string& name, const HardwareAddress& hardware)
{
    std::set<std::uint16_t> taken;
    for (const auto& [other, workstation] : workstations_)
        taken.insert(workstation.number);
    std::uint16_t number = 1;
    while (taken.contains(number))
        ++number;
    Workstation& workstation = workstations_[name];
    workstation.name = name;
    workstation.hardware = hardware;
    workstation.number = number;
    return workstation;
}

// Null: it is known and has none any more.
const std::vector<FleetDisk>* Fleet::disks_of(const Workstation& workstation) const
{
    std::string group = workstation.group;
    if (workstation.in_config) {
        const auto written =
            std::ranges::find(config_.workstations, workstation.name, &FleetWorkstation::name);
        if (written->group.empty())
            return &written->disks;
        group = written->group;
    }
    const FleetGroup* const found = config_.group(group);
    return found ? &found->disks : nullptr;
}

BootDecision Fleet::decide_boot(const BootRequest& request, const Peer& from)
{
    HardwareAddress hardware;
    std::ranges::copy(request.Hardware, hardware.begin());
    const auto refuse = [&](const std::string& why) {
        ++refusals_;
        log(LogLevel::warning,
            fmt::format("boot of {} at {} refused: {}", to_text(hardware), to_text(from), why));
        return BootDecision{{}, why};
    };
    Workstation* workstation = find(hardware);
    if (workstation && workstation->booted && workstation->cookie == request.Cookie.get() &&
        std::ranges::equal(workstation->ip, from.Ip) && !workstation->lanes.empty())
        return {block_of(*workstation), fmt::format("disks of {}", workstation->name)};  // asked again
    if (draining_)
        return refuse("the server is being drained");
    if (!workstation) {
        if (config_.unknown == UnknownPolicy::refuse)
            return refuse("the server does not know this PC");
        if (workstations_.size() >= workstations_max)
            return refuse("the server knows too many PCs");
        std::string name = "pc-" + to_text(hardware);
        std::erase(name, ':');
        workstation = &add(name, hardware);
        workstation->group = config_.unknown_group;
        workstation->approved = config_.unknown == UnknownPolicy::serve;
        save();
    }
    if (!workstation->approved)
        return refuse(fmt::format("{} waits for the administrator's approval", workstation->name));
    const std::vector<FleetDisk>* const disks = disks_of(*workstation);
    if (!disks)
        return refuse(fmt::format("the server has no disks for {}", workstation->name));
    if (!end(*workstation, close_wait_ms))
        return refuse(fmt::format("a disk of {} hangs in its storage", workstation->name));
    workstation->disks = *disks;
    workstation->versions.clear();
    for (const FleetDisk& disk : *disks) {
        const ImageShelf::Image* const image = shelf_.find(disk.image);
        workstation->versions.push_back(image ? image->current : 0);
    }
    ++workstation->generation;
    workstation->cookie = request.Cookie.get();
    std::ranges::copy(from.Ip, workstation->ip.begin());
    workstation->booted = true;
    begin(*workstation, true);
    if (workstation->lanes.empty()) {
        workstation->booted = false;
        return refuse(workstation->trouble);
    }
    workstation->fresh.clear();
    save();
    ++boots_;
    log(LogLevel::info, fmt::format("{} boots from {}", workstation->name, ip_text(from.Ip)));
    return {block_of(*workstation), fmt::format("disks of {}", workstation->name)};
}

unsigned Fleet::limit_of(const Workstation& workstation) const
{
    std::string group = workstation.group;
    if (workstation.in_config) {
        const auto written =
            std::ranges::find(config_.workstations, workstation.name, &FleetWorkstation::name);
        if (written->limit_mb_s != 0)
            return written->limit_mb_s;
        group = written->group;
    }
    const FleetGroup* const found = config_.group(group);
    return found ? found->limit_mb_s : 0;
}

// All disks or none.
void Fleet::begin(Workstation& workstation, bool new_boot)
{
    workstation.trouble.clear();
    const unsigned limit_mb_s = limit_of(workstation);
    workstation.allowance = limit_mb_s != 0 ? std::make_shared<Allowance>(limit_mb_s) : nullptr;
    std::vector<std::shared_ptr<DiskLane>> lanes;
    try {
        for (unsigned lun = 0; lun < workstation.disks.size(); ++lun)
            lanes.push_back(open_lane(workstation, lun, new_boot));
    } catch (const std::exception& error) {
        workstation.trouble = error.what();
        log(LogLevel::error, fmt::format("disks of {}: {}", workstation.name, error.what()));
        return;
    }
    workstation.lanes = std::move(lanes);
    std::unique_lock guard(routes_lock_);
    for (const auto& lane : workstation.lanes)
        routes_[lane->key()] = lane;
}

// False: a disk is still at work after the wait, which is for all of them, and once. Its packets go nowhere
// from here on all the same.
bool Fleet::end(Workstation& workstation, unsigned wait_ms)
{
    bool first = false;
    {
        std::unique_lock guard(routes_lock_);
        for (const auto& lane : workstation.lanes)
            first = routes_.erase(lane->key()) != 0 || first;
    }
    bool ended = true;
    for (const auto& lane : workstation.lanes)
        ended = lane->close(first && ended ? wait_ms : 0) && ended;
    if (ended)
        workstation.lanes.clear();
    return ended;
}

std::string Fleet::overlay_path(const Workstation& workstation, unsigned lun) const
{
    return fmt::format("{}/overlays/{}.lun{}", config_.state, workstation.name, lun);
}

std::shared_ptr<DiskLane> Fleet::open_lane(Workstation& workstation, unsigned lun, bool new_boot)
{
    const FleetDisk& disk = workstation.disks[lun];
    ImageShelf::Image* const image = shelf_.find(disk.image);
    if (!image)
        throw std::runtime_error(fmt::format("there is no image {}", disk.image));
    unsigned version = workstation.versions.at(lun);
    LaneSetup setup{.workstation = workstation.name,
                    .lun = lun,
                    .disk = disk,
                    .image = ImageShelf::name_of(disk.image, version),
                    .id = id_of(disk, lun),
                    .parm = {static_cast<std::uint8_t>(workstation.number >> 8),
                             static_cast<std::uint8_t>(workstation.number), workstation.generation,
                             static_cast<std::uint8_t>(lun)},
                    .ip = workstation.ip,
                    .store = nullptr,
                    .area = nullptr,
                    .owner = nullptr,
                    .allowance = workstation.allowance,
                    .held_bytes = nullptr};
    if (disk.mode == DiskMode::exclusive) {
        setup.owner = image->owner;
        setup.store = std::make_shared<ExclusiveStore>(shelf_.open_writable(disk.image, version),
                                                       image->owner, workstation.name);
    } else if (disk.mode == DiskMode::readonly) {
        setup.store = shelf_.open(disk.image, version);
    } else {
        const std::string path = overlay_path(workstation, lun);
        const bool discards = new_boot && (!disk.keep || workstation.fresh.contains(lun));
        std::string of_image = disk.image;
        if (discards || access(path.c_str(), F_OK) != 0)
            create_overlay_file(path, {shelf_.open(disk.image, version)->size_bytes(), 4096, setup.image});
        else
            setup.image = overlay_shape(*open_sparse_file(path, true)).base;
        // One that is kept stays on the version that it was begun on.
        if (!ImageShelf::split(setup.image, of_image, version) || of_image != disk.image)
            throw std::runtime_error(fmt::format("{}: is an overlay of {}; qrn-ctl reset {} gives it up",
                                                 path, setup.image, workstation.name));
        std::shared_ptr<OverlayStore> overlay =
            open_overlay_file(path, shelf_.open(of_image, version), setup.image);
        setup.held_bytes = [overlay] { return overlay->blocks_held() * overlay->shape().block_bytes; };
        setup.store = std::move(overlay);
    }
    if (setup.store->size_bytes() / formats::sector_bytes > formats::disk_sectors_max)
        throw std::runtime_error(
            fmt::format("{} has more sectors than a workstation can address", setup.image));
    setup.area = shelf_.open_area(disk.image, setup.store->size_bytes() / formats::sector_bytes);
    return std::make_shared<DiskLane>(pool_, std::move(setup), clock_);
}

formats::Boot_Param Fleet::block_of(const Workstation& workstation) const
{
    std::vector<ServedDisk> served;
    std::vector<std::uint32_t> sectors;
    for (const auto& lane : workstation.lanes) {
        const FleetDisk& disk = lane->setup().disk;
        ServedDisk one{};
        std::ranges::copy(lane->setup().id, one.id);
        one.read_kb = disk.read_kb;
        one.write_kb = disk.write_kb;
        one.slots = disk.slots;
        one.retry_mins = disk.retry_mins;
        one.mirror = disk.mirror;
        one.delay_load = disk.delay_load;
        one.cache_mb = disk.cache_mb;
        served.push_back(one);
        sectors.push_back(static_cast<std::uint32_t>(lane->size_bytes() / formats::sector_bytes));
    }
    formats::Boot_Param block = make_boot_parameters(served, sectors, self_);
    for (std::size_t lun = 0; lun < workstation.lanes.size(); ++lun)
        std::ranges::copy(workstation.lanes[lun]->setup().parm, block.Disks[lun].Disk_Parm);
    return block;
}

void Fleet::tick()
{
    const std::uint64_t now_ms = clock_();
    std::lock_guard guard(lock_);
    const bool opens = now_ms >= next_open_ms_;
    if (opens)
        next_open_ms_ = now_ms + open_again_ms;
    for (auto& [name, workstation] : workstations_) {
        for (const auto& lane : workstation.lanes)
            lane->flush_if_due(now_ms);
        if (opens && workstation.booted && workstation.lanes.empty())
            begin(workstation, false);
    }
}

void Fleet::limit_retries()
{
    std::lock_guard guard(lock_);
    for (const auto& [name, workstation] : workstations_)
        for (const auto& lane : workstation.lanes)
            lane->limit_retries();
}

std::string Fleet::flush_all(unsigned wait_ms)
{
    struct Outcome {
        std::mutex lock;
        std::condition_variable changed;
        std::map<std::string, int> waiting, failed;
    };
    const auto outcome = std::make_shared<Outcome>();
    std::vector<std::pair<std::string, std::shared_ptr<DiskLane>>> lanes;
    {
        std::lock_guard guard(lock_);
        for (const auto& [name, workstation] : workstations_)
            for (const auto& lane : workstation.lanes)
                lanes.emplace_back(fmt::format("{} LUN {}", name, lane->setup().lun), lane);
    }
    for (const auto& [name, lane] : lanes)
        outcome->waiting[name] = 0;
    for (const auto& [name, lane] : lanes)
        lane->flush([outcome, disk = name](int error) {
            std::lock_guard guard(outcome->lock);
            outcome->waiting.erase(disk);
            if (error != 0)
                outcome->failed[disk] = error;
            outcome->changed.notify_all();
        });
    std::unique_lock lock(outcome->lock);
    outcome->changed.wait_for(lock, std::chrono::milliseconds(wait_ms),
                              [&] { return outcome->waiting.empty(); });
    std::string told;
    for (const auto& [name, error] : outcome->failed)
        told +=
            fmt::format("{}{}: {}", told.empty() ? "" : "; ", name, std::generic_category().message(error));
    for (const auto& [name, none] : outcome->waiting)
        told += fmt::format("{}{}: its storage does not answer", told.empty() ? "" : "; ", name);
    return told;
}

// What a configuration says of workstations that run counts from their next boot on.
void Fleet::apply(const FleetConfig& config)
{
    config_ = config;
    shelf_.configure(config);
    for (auto& [name, workstation] : workstations_)
        workstation.in_config = false;
    for (const FleetWorkstation& written : config.workstations) {
        Workstation* workstation = find(written.hardware);
        if (workstation && workstation->name != written.name && !workstations_.contains(written.name)) {
            // Known under another name until now: its overlays go with it.
            end(*workstation, close_wait_ms);
            Workstation renamed = std::move(*workstation);
            const std::string before = renamed.name;
            workstations_.erase(before);
            renamed.name = written.name;
            for (unsigned lun = 0; lun < formats::disk_count_max; ++lun) {
                const std::string from = fmt::format("{}/overlays/{}.lun{}", config.state, before, lun);
                const std::string to = fmt::format("{}/overlays/{}.lun{}", config.state, written.name, lun);
                if (access(from.c_str(), F_OK) == 0)
                    std::filesystem::rename(from, to);
            }
            workstation = &(workstations_[written.name] = std::move(renamed));
        } else if (!workstation) {
            workstation = find(written.name);
        }
        if (!workstation)
            workstation = &add(written.name, written.hardware);
        workstation->hardware = written.hardware;
        workstation->in_config = true;
        workstation->approved = true;
    }
    std::unique_lock guard(routes_lock_);
    allow_ = config.allow;
}

}  // namespace server
