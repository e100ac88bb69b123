// SPDX-License-Identifier: MIT
// What an administrator sees and does, and what outlives the server.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "server/fleet.h"
#include "server/log.h"
#include "server/overlay_file.h"

namespace server {

using Json = nlohmann::json;

namespace {

constexpr std::uint64_t silent_ms = 60'000;
constexpr unsigned flush_wait_ms = 30'000;

[[noreturn]] void refuse(const std::string& why)
{
    throw std::runtime_error(why);
}

std::string text_of(const Json& command, const char* name)
{
    const auto found = command.find(name);
    if (found == command.end() || !found->is_string())
        refuse(fmt::format("'{}' is missing", name));
    return found->get<std::string>();
}

bool flag_of(const Json& command, const char* name)
{
    const auto found = command.find(name);
    return found != command.end() && found->is_boolean() && found->get<bool>();
}

unsigned number_of(const Json& command, const char* name, unsigned most, unsigned otherwise)
{
    const auto found = command.find(name);
    if (found == command.end())
        return otherwise;
    if (!found->is_number_integer() || *found < 0 || *found > most)
        refuse(fmt::format("'{}' must be a number up to {}", name, most));
    return found->get<unsigned>();
}

std::uint64_t room_of(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : 0;
}

// What a workstation booted with is what it gets after a restart of the server, whatever the configuration
// says by then.
Json json_of(const FleetDisk& disk)
{
    return {{"image", disk.image},
            {"mode", static_cast<int>(disk.mode)},
            {"keep", disk.keep},
            {"sync", static_cast<int>(disk.sync)},
            {"sync_seconds", disk.sync_seconds},
            {"id", disk.id ? Json(*disk.id) : Json()},
            {"read_kb", disk.read_kb},
            {"write_kb", disk.write_kb},
            {"slots", disk.slots},
            {"retry_mins", disk.retry_mins},
            {"cache_mb", disk.cache_mb},
            {"mirror", disk.mirror ? Json(to_text(*disk.mirror)) : Json()},
            {"delay_load", disk.delay_load}};
}

FleetDisk disk_of(const Json& saved)
{
    FleetDisk disk;
    disk.image = saved.at("image");
    disk.mode = static_cast<DiskMode>(saved.at("mode").get<int>());
    disk.keep = saved.at("keep");
    disk.sync = static_cast<SyncMode>(saved.at("sync").get<int>());
    disk.sync_seconds = saved.at("sync_seconds");
    if (!saved.at("id").is_null())
        disk.id = saved.at("id").get<std::uint32_t>();
    disk.read_kb = saved.at("read_kb");
    disk.write_kb = saved.at("write_kb");
    disk.slots = saved.at("slots");
    disk.retry_mins = saved.at("retry_mins");
    disk.cache_mb = saved.at("cache_mb");
    if (!saved.at("mirror").is_null())
        disk.mirror = address_of(saved.at("mirror").get<std::string>());
    disk.delay_load = saved.at("delay_load");
    return disk;
}

const char* word_for(DiskMode mode)
{
    return mode == DiskMode::overlay ? "overlay" : mode == DiskMode::readonly ? "readonly" : "exclusive";
}

}  // namespace

void Fleet::load()
{
    const std::string path = config_.state + "/fleet.json";
    if (access(path.c_str(), F_OK) != 0)
        return;
    try {
        const Json saved = Json::parse(std::ifstream(path));
        shelf_.load(saved.at("images"));
        for (const auto& [name, one] : saved.at("workstations").items()) {
            const auto hardware = hardware_of(one.at("hardware").get<std::string>());
            const auto ip = host_of(one.at("ip").get<std::string>());
            if (!fleet_name_valid(name) || !hardware || !ip)
                refuse(fmt::format("workstation '{}'", name));
            Workstation& workstation = add(name, *hardware);
            workstation.number = one.at("number");
            workstation.generation = one.at("generation");
            workstation.cookie = one.at("cookie");
            workstation.group = one.at("group");
            workstation.approved = one.at("approved");
            workstation.booted = one.at("booted");
            std::ranges::copy(ip->Ip, workstation.ip.begin());
            for (const unsigned lun : one.at("fresh").get<std::vector<unsigned>>())
                workstation.fresh.insert(lun);
            workstation.versions = one.at("versions").get<std::vector<unsigned>>();
            for (const Json& disk : one.at("disks"))
                workstation.disks.push_back(disk_of(disk));
            if (workstation.disks.size() != workstation.versions.size())
                refuse(fmt::format("the disks of '{}'", name));
        }
    } catch (const std::exception& error) {
        refuse(fmt::format(
            "{}: is damaged ({}); without it the server does not know what its overlays belong to", path,
            error.what()));
    }
}

void Fleet::save() const
{
    Json workstations = Json::object();
    for (const auto& [name, workstation] : workstations_) {
        Json disks = Json::array();
        for (const FleetDisk& disk : workstation.disks)
            disks.push_back(json_of(disk));
        workstations[name] = {{"hardware", to_text(workstation.hardware)},
                              {"ip", fmt::format("{}", fmt::join(workstation.ip, "."))},
                              {"number", workstation.number},
                              {"generation", workstation.generation},
                              {"cookie", workstation.cookie},
                              {"group", workstation.group},
                              {"approved", workstation.approved},
                              {"booted", workstation.booted},
                              {"fresh", workstation.fresh},
                              {"versions", workstation.versions},
                              {"disks", std::move(disks)}};
    }
    const Json all = {{"images", shelf_.save()}, {"workstations", workstations}};
    save_file(config_.state + "/fleet.json", all.dump(1) + "\n");
}

bool Fleet::runs(const Workstation& workstation) const
{
    return std::ranges::any_of(workstation.lanes, [&](const auto& lane) {
        const LaneStatus status = lane->status();
        return status.last_seen_ms != 0 && !status.shut_down && clock_() - status.last_seen_ms < silent_ms;
    });
}

// Empty: there is none.
std::string Fleet::overlay_base(const Workstation& workstation, unsigned lun) const
{
    const std::string path = overlay_path(workstation, lun);
    if (access(path.c_str(), F_OK) != 0)
        return "";
    try {
        return overlay_shape(*open_sparse_file(path, true)).base;
    } catch (const std::exception&) {
        return "";
    }
}

std::vector<std::string> Fleet::users_of(const std::string& image_version) const
{
    std::vector<std::string> users;
    for (const auto& [name, workstation] : workstations_) {
        bool uses = false;
        for (unsigned lun = 0; lun < formats::disk_count_max; ++lun)
            uses |= overlay_base(workstation, lun) == image_version;
        for (const auto& lane : workstation.lanes)
            uses |= lane->setup().image == image_version;
        if (uses)
            users.push_back(name);
    }
    return users;
}

Json Fleet::status_of(const Workstation& workstation) const
{
    Json disks = Json::array();
    std::uint64_t seen_ms = 0;
    bool down = false;
    for (const auto& lane : workstation.lanes) {
        const LaneStatus status = lane->status();
        const LaneSetup& setup = lane->setup();
        const DiskCounters& counters = status.counters;
        seen_ms = std::max(seen_ms, status.last_seen_ms);
        down |= status.shut_down;
        Json disk = {{"lun", setup.lun},
                     {"image", setup.image},
                     {"mode", word_for(setup.disk.mode)},
                     {"size_bytes", lane->size_bytes()},
                     {"cache_mb", setup.disk.cache_mb},
                     {"read_requests", counters.read_requests},
                     {"read_bytes", counters.read_bytes},
                     {"writes_completed", counters.writes_completed},
                     {"written_bytes", counters.written_bytes},
                     {"status_queries", counters.status_queries},
                     {"repeated_writes", counters.repeated_writes},
                     {"sync_bytes", counters.sync_bytes},
                     {"flushes", counters.flushes},
                     {"store_errors", counters.store_errors},
                     {"readonly_drops", status.dropped.readonly},
                     {"last_error", status.last_error}};
        if (setup.disk.mode == DiskMode::overlay) {
            disk["held_bytes"] = status.held_bytes;
            disk["room_bytes"] = room_of(overlay_path(workstation, setup.lun));
        }
        if (setup.owner)
            disk["writer"] = setup.owner->name();
        disks.push_back(std::move(disk));
    }
    const std::uint64_t now_ms = clock_();
    const char* const state = !workstation.approved          ? "waits for approval"
                              : !workstation.trouble.empty() ? "trouble"
                              : !workstation.booted          ? "off"
                              : seen_ms == 0                 ? "booted"
                              : down                         ? "shut down"
                              : now_ms - seen_ms < silent_ms ? "running"
                                                             : "silent";
    return {{"name", workstation.name},
            {"hardware", to_text(workstation.hardware)},
            {"address", workstation.booted ? fmt::format("{}", fmt::join(workstation.ip, ".")) : ""},
            {"state", state},
            {"trouble", workstation.trouble},
            {"last_seen_s", seen_ms == 0 ? Json() : Json(static_cast<double>(now_ms - seen_ms) / 1000)},
            {"disks", disks}};
}

Json Fleet::image_status(const std::string& name, const ImageShelf::Image& image) const
{
    Json versions = Json::array();
    for (const auto& [version, path] : image.versions) {
        struct stat status {};
        const bool there = stat(path.c_str(), &status) == 0;
        versions.push_back({{"version", version},
                            {"path", path},
                            {"users", users_of(ImageShelf::name_of(name, version))},
                            {"size_bytes", there ? Json(status.st_size) : Json()},
                            {"room_bytes", there ? Json(status.st_blocks * 512) : Json()},
                            {"changed_unix_s", there ? Json(status.st_mtim.tv_sec) : Json()}});
    }
    return {{"name", name}, {"current", image.current}, {"versions", versions}};
}

Json Fleet::status() const
{
    std::lock_guard guard(lock_);
    Json workstations = Json::array(), images = Json::array();
    for (const auto& [name, workstation] : workstations_)
        workstations.push_back(status_of(workstation));
    for (const auto& [name, image] : shelf_.images())
        images.push_back(image_status(name, image));
    return {{"server",
             {{"address", to_text(self_)},
              {"draining", draining_},
              {"boots", boots_},
              {"boots_refused", refusals_},
              {"threads", pool_.threads()},
              {"dropped",
               {{"strangers", drops_.strangers.load()},
                {"other_address", drops_.other_address.load()},
                {"unknown_disk", drops_.unknown_disk.load()},
                {"too_many", drops_.too_many.load()},
                {"short_packet", drops_.short_packet.load()}}}}},
            {"workstations", workstations},
            {"images", images}};
}

Json Fleet::command(const Json& command)
{
    try {
        if (!command.is_object())
            refuse("a command is an object");
        const std::string name = text_of(command, "command");
        if (name == "list")
            return status();
        if (name == "flush") {
            const std::string failed = flush_all(flush_wait_ms);
            return failed.empty() ? Json{{"done", "everything is written back"}} : Json{{"error", failed}};
        }
        if (name == "commit")
            return commit(command, true);
        if (name == "snapshot")
            return commit(command, false);
        std::lock_guard guard(lock_);
        if (name == "show")
            return status_of(named(command));
        if (name == "add")
            return add_workstation(command);
        if (name == "remove")
            return remove(command);
        if (name == "reset")
            return reset(command);
        if (name == "rollback")
            return roll_back(command);
        if (name == "reload")
            return reload();
        if (name == "boot-block")
            return boot_block(command);
        if (name == "drain") {
            draining_ = !flag_of(command, "off");
            return {{"done", draining_ ? "no workstation boots any more; those that run go on"
                                       : "workstations boot again"}};
        }
        refuse(fmt::format("there is no command '{}'", name));
    } catch (const std::exception& error) {
        return {{"error", error.what()}};
    }
}

Fleet::Workstation& Fleet::named(const Json& command)
{
    const std::string name = text_of(command, "name");
    Workstation* const workstation = find(name);
    if (!workstation)
        refuse(fmt::format("there is no workstation '{}'", name));
    return *workstation;
}

// A new one, or one that waits for approval.
Json Fleet::add_workstation(const Json& command)
{
    const std::string name = text_of(command, "name"), group = text_of(command, "group");
    const auto hardware = hardware_of(text_of(command, "hardware"));
    if (!hardware)
        refuse("the hardware address must be like 52:54:00:12:34:56");
    if (!fleet_name_valid(name))
        refuse(fmt::format("'{}' is no name: letters, digits, '-', '_' and '.'", name));
    if (!config_.group(group))
        refuse(fmt::format("there is no group '{}'", group));
    Workstation* const known = find(*hardware);
    if (known && known->approved)
        refuse(fmt::format("{} is {}", to_text(*hardware), known->name));
    if (const auto other = workstations_.find(name); other != workstations_.end() && &other->second != known)
        refuse(fmt::format("there is a workstation '{}' already", name));
    if (known)
        workstations_.erase(std::string(known->name));
    Workstation& workstation = add(name, *hardware);
    workstation.group = group;
    save();
    return {{"done", fmt::format("{} gets the disks of {} when it boots", name, group)}};
}

Json Fleet::remove(const Json& command)
{
    const std::string name = text_of(command, "name");
    std::string image_name;
    unsigned version = 0;
    if (ImageShelf::split(name, image_name, version)) {
        ImageShelf::Image* const image = shelf_.find(image_name);
        if (!image || !image->versions.contains(version))
            refuse(fmt::format("there is no {}", name));
        if (image->current == version)
            refuse(fmt::format("{} is the current version", name));
        if (const auto users = users_of(name); !users.empty())
            refuse(fmt::format("{} is used by {}", name, fmt::join(users, ", ")));
        const std::string path = image->versions[version];
        image->versions.erase(version);
        save();
        return {{"done", fmt::format("{} is forgotten; its file stays: {}", name, path)}};
    }
    Workstation& workstation = named(command);
    if (workstation.in_config)
        refuse(fmt::format("{} is in {}; take it out there and reload", workstation.name, config_path_));
    if (runs(workstation) && !flag_of(command, "force"))
        refuse(fmt::format("{} is running (--force takes its disks away)", workstation.name));
    if (!end(workstation, 2000))
        refuse(fmt::format("a disk of {} hangs in its storage", workstation.name));
    for (unsigned lun = 0; lun < formats::disk_count_max; ++lun)
        unlink(overlay_path(workstation, lun).c_str());
    const std::string gone = workstation.name;
    workstations_.erase(gone);
    save();
    return {{"done", fmt::format("{} and its overlays are gone", gone)}};
}

Json Fleet::reset(const Json& command)
{
    Workstation& workstation = named(command);
    if (runs(workstation) && !flag_of(command, "force"))
        refuse(fmt::format("{} is running (--force takes its disks away)", workstation.name));
    if (!end(workstation, 2000))
        refuse(fmt::format("a disk of {} hangs in its storage", workstation.name));
    workstation.booted = false;
    workstation.trouble.clear();
    save();
    for (unsigned lun = 0; lun < formats::disk_count_max; ++lun)
        unlink(overlay_path(workstation, lun).c_str());
    for (const FleetDisk& disk : workstation.disks)
        if (ImageShelf::Image* const image = shelf_.find(disk.image))
            image->owner->release(workstation.name);
    return {{"done", fmt::format("{} begins anew when it boots", workstation.name)}};
}

// A version of the image as a workstation sees it. The copy is made without the lock: it takes as long as it
// takes.
Json Fleet::commit(const Json& command, bool becomes_current)
{
    const unsigned lun = number_of(command, "lun", formats::disk_count_max - 1, 0);
    std::string image_name, base, path, overlay;
    unsigned version = 0;
    std::shared_ptr<DiskLane> lane;
    std::shared_ptr<BlockStore> base_store;
    {
        std::lock_guard guard(lock_);
        Workstation& workstation = named(command);
        if (runs(workstation) && !flag_of(command, "force"))
            refuse(fmt::format("{} is running; its file systems may be in the middle of something (--force)",
                               workstation.name));
        base = overlay_base(workstation, lun);
        if (base.empty() || !ImageShelf::split(base, image_name, version) || !shelf_.find(image_name))
            refuse(fmt::format("LUN {} of {} has no overlay", lun, workstation.name));
        const ImageShelf::Image& image = *shelf_.find(image_name);
        const unsigned next = image.versions.rbegin()->first + 1;
        const std::string stem = is_nbd_uri(image.versions.begin()->second)
                                     ? fmt::format("{}/{}", config_.state, image_name)
                                     : image.versions.begin()->second;
        path = fmt::format("{}.v{}", stem, next);
        if (access(path.c_str(), F_OK) == 0)
            refuse(fmt::format("{} is there already", path));
        overlay = overlay_path(workstation, lun);
        if (lun < workstation.lanes.size())
            lane = workstation.lanes[lun];
        else
            base_store = shelf_.open(image_name, version);
        if (!committing_.insert(image_name).second)
            refuse(fmt::format("a version of {} is being made", image_name));
    }
    std::string failure;
    try {
        const auto failed = std::make_shared<std::promise<std::string>>();
        const auto copy = [failed, path](BlockStore& store) {
            try {
                copy_disk(store, path);
                failed->set_value("");
            } catch (const std::exception& error) {
                failed->set_value(error.what());
            }
        };
        if (!lane)
            copy(*open_overlay_file(overlay, base_store, base));
        else if (!lane->with_store(copy))
            failed->set_value("the workstation has just booted");
        failure = failed->get_future().get();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    std::lock_guard guard(lock_);
    committing_.erase(image_name);
    if (!failure.empty())
        refuse(failure);
    const unsigned made = shelf_.add_version(image_name, path, becomes_current);
    if (Workstation* const workstation = find(text_of(command, "name")); workstation && becomes_current)
        workstation->fresh.insert(lun);  // what it wrote is in the image now
    save();
    log(LogLevel::notice, fmt::format("{}@{} is {}", image_name, made, path));
    return {{"done", fmt::format("{}@{} is {}{}", image_name, made, path,
                                 becomes_current ? ", the image of later boots" : "")},
            {"version", made}};
}

Json Fleet::roll_back(const Json& command)
{
    const std::string name = text_of(command, "name");
    std::string image_name = name;
    unsigned version = 0;
    ImageShelf::split(name, image_name, version);
    ImageShelf::Image* const image = shelf_.find(image_name);
    if (!image)
        refuse(fmt::format("there is no image '{}'", image_name));
    if (version == 0) {
        const auto current = image->versions.find(image->current);
        if (current == image->versions.begin() || current == image->versions.end())
            refuse(fmt::format("{} has no version before {}", image_name, image->current));
        version = std::prev(current)->first;
    }
    if (!image->versions.contains(version))
        refuse(fmt::format("there is no {}@{}", image_name, version));
    image->current = version;
    save();
    return {{"done", fmt::format("{}@{} is the image of later boots", image_name, version)}};
}

Json Fleet::reload()
{
    const FleetConfig fresh = read_fleet_config(config_path_);
    check_fleet_images(fresh, config_path_);
    Json unchanged = Json::array(), later = Json::array();
    const auto fixed = [&](const char* what, bool same) {
        if (!same)
            unchanged.push_back(fmt::format("'{}' changes when the server starts again", what));
    };
    const auto text = [](const std::optional<formats::ServerRecord>& address) {
        return address ? to_text(*address) : std::string();
    };
    fixed("listen", text(fresh.listen) == text(config_.listen));
    fixed("advertise", text(fresh.advertise) == text(config_.advertise));
    fixed("state", fresh.state == config_.state);
    fixed("control", fresh.control == config_.control);
    fixed("http", text(fresh.http) == text(config_.http));
    fixed("stats_json", fresh.stats_json == config_.stats_json);
    fixed("threads", fresh.threads == config_.threads);
    FleetConfig next = fresh;
    next.listen = config_.listen;
    next.advertise = config_.advertise;
    next.state = config_.state;
    next.control = config_.control;
    next.http = config_.http;
    next.stats_json = config_.stats_json;
    next.threads = config_.threads;
    apply(next);
    save();
    for (const auto& [name, workstation] : workstations_)
        if (runs(workstation)) {
            const auto* const disks = disks_of(workstation);
            if (!disks || *disks != workstation.disks)
                later.push_back(fmt::format("{} gets its other disks when it boots again", name));
        }
    return {
        {"done", fmt::format("{} is in force", config_path_)}, {"unchanged", unchanged}, {"later", later}};
}

// As a boot from the network would do it, for a workstation that has its boot block from a file.
Json Fleet::boot_block(const Json& command)
{
    Workstation& workstation = named(command);
    const auto from = host_of(command.contains("address") ? text_of(command, "address") : "127.0.0.1");
    if (!from)
        refuse("'address' must be an IPv4 address");
    formats::BootRequest request{};
    std::ranges::copy(workstation.hardware, request.Hardware);
    request.Cookie.set(static_cast<std::uint32_t>(clock_()) ^ ++cookies_ << 24);
    const BootDecision decision = decide_boot(request, *from);
    if (!decision.block)
        refuse(decision.text);
    std::string hex;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&*decision.block);
    for (std::size_t i = 0; i < sizeof *decision.block; ++i)
        hex += fmt::format("{:02x}", bytes[i]);
    return {{"done", decision.text}, {"block", hex}};
}

}  // namespace server
