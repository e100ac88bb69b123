// SPDX-License-Identifier: MIT
#include "server/fleet_config.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include <fmt/format.h>
#include <fmt/ranges.h>

#define TOML_HEADER_ONLY 0
#include <toml++/toml.h>

#include "server/block_store.h"
#include "server/image_check.h"
#include "server/raw_check.h"

namespace server {

namespace {

constexpr unsigned window_ms_max = 100;  // workstations wait 110 ms before they ask again

constexpr unsigned faults_told_max = 20;

class Parser {
public:
    Parser(std::string file) : file_(std::move(file)) {}

    FleetConfig parse(const std::string& text);

private:
    using Names = std::initializer_list<std::string_view>;

    void fault(unsigned line, const std::string& what)
    {
        if (++faults_ <= faults_told_max)
            told_ += fmt::format("{}{}:{}: {}", told_.empty() ? "" : "\n", file_, line, what);
    }
    void fault(const toml::node& node, const std::string& what) { fault(line_of(node), what); }
    static unsigned line_of(const toml::node& node) { return node.source().begin.line; }

    void only(const toml::table& table, const std::string& what, Names names);
    const toml::table* table(const toml::table& parent, std::string_view name);
    std::optional<std::string> text(const toml::table& parent, std::string_view name);
    bool flag(const toml::table& parent, std::string_view name);
    void number(const toml::table& parent, std::string_view name, unsigned low, unsigned high,
                unsigned& value);
    std::optional<formats::ServerRecord> address(const toml::table& parent, std::string_view name);
    std::string path(const toml::table& parent, std::string_view name, bool required);
    std::size_t choice(const toml::table& parent, std::string_view name, Names choices);
    bool named(const toml::key& key);

    void read_server(const toml::table& table);
    void read_unknown(const toml::table& table);
    void read_image(const toml::key& key, const toml::node& node);
    void read_group(const toml::key& key, const toml::node& node);
    void read_workstation(const toml::key& key, const toml::node& node);
    std::vector<FleetDisk> read_disks(const toml::table& parent);
    unsigned read_limit(const toml::table& table, const std::vector<FleetDisk>& disks);
    FleetDisk read_disk(const toml::table& table, unsigned lun);
    void check_whole();

    std::string file_, told_;
    unsigned faults_ = 0;
    FleetConfig config_;
};

void Parser::only(const toml::table& table, const std::string& what, Names names)
{
    for (const auto& [key, node] : table)
        if (std::ranges::find(names, key.str()) == names.end())
            fault(key.source().begin.line, fmt::format("'{}' is unknown in {}; expected: {}", key.str(), what,
                                                       fmt::join(names, ", ")));
}

const toml::table* Parser::table(const toml::table& parent, std::string_view name)
{
    const toml::node* const node = parent.get(name);
    if (node && !node->is_table())
        fault(*node, fmt::format("'{0}' must be a table, [{0}]", name));
    return node ? node->as_table() : nullptr;
}

std::optional<std::string> Parser::text(const toml::table& parent, std::string_view name)
{
    const toml::node* const node = parent.get(name);
    if (!node)
        return std::nullopt;
    if (!node->is_string()) {
        fault(*node, fmt::format("'{}' must be a text in quotes", name));
        return std::nullopt;
    }
    return node->as_string()->get();
}

bool Parser::flag(const toml::table& parent, std::string_view name)
{
    const toml::node* const node = parent.get(name);
    if (node && !node->is_boolean())
        fault(*node, fmt::format("'{}' must be true or false", name));
    return node && node->is_boolean() && node->as_boolean()->get();
}

void Parser::number(const toml::table& parent, std::string_view name, unsigned low, unsigned high,
                    unsigned& value)
{
    const toml::node* const node = parent.get(name);
    if (!node)
        return;
    const auto* const integer = node->as_integer();
    if (!integer || integer->get() < low || integer->get() > high)
        fault(*node, fmt::format("'{}' must be a number from {} to {}", name, low, high));
    else
        value = static_cast<unsigned>(integer->get());
}

std::optional<formats::ServerRecord> Parser::address(const toml::table& parent, std::string_view name)
{
    const auto written = text(parent, name);
    if (!written)
        return std::nullopt;
    const auto address = address_of(*written);
    if (!address)
        fault(*parent.get(name),
              fmt::format("'{}' must be \"ADDR:PORT\" with an IPv4 address, not '{}'", name, *written));
    return address;
}

std::string Parser::path(const toml::table& parent, std::string_view name, bool required)
{
    const auto written = text(parent, name);
    if (written && written->empty())
        fault(*parent.get(name), fmt::format("'{}' is empty; a path is expected", name));
    if (!parent.get(name) && required)
        fault(line_of(parent), fmt::format("'{}' is missing; a path is expected", name));
    return written.value_or("");
}

// The first choice when there is none.
std::size_t Parser::choice(const toml::table& parent, std::string_view name, Names choices)
{
    const auto written = text(parent, name);
    if (!written)
        return 0;
    const auto found = std::ranges::find(choices, *written);
    if (found != choices.end())
        return static_cast<std::size_t>(found - choices.begin());
    fault(*parent.get(name),
          fmt::format("'{}' is \"{}\"; expected: \"{}\"", name, *written, fmt::join(choices, "\", \"")));
    return 0;
}

bool Parser::named(const toml::key& key)
{
    if (fleet_name_valid(key.str()))
        return true;
    fault(key.source().begin.line,
          fmt::format("'{}' is no name; expected: up to 48 letters, digits, '-', '_' and '.', no '.' first",
                      key.str()));
    return false;
}

void Parser::read_server(const toml::table& table)
{
    only(table, "[server]",
         {"listen", "advertise", "state", "control", "http", "stats_json", "threads", "allow"});
    if (!table.get("listen"))
        fault(table, "'listen' is missing; \"ADDR:PORT\" is expected");
    config_.listen = address(table, "listen").value_or(formats::ServerRecord{});
    if (const auto written = text(table, "advertise")) {
        config_.advertise = host_of(*written);
        if (!config_.advertise || !config_.advertise->names_a_server())
            fault(*table.get("advertise"), "'advertise' must be the server's IPv4 address for workstations");
    } else if (table.get("listen") && !config_.listen.names_a_server()) {
        fault(table, "'advertise' is missing; workstations cannot be told 0.0.0.0");
    }
    config_.state = path(table, "state", true);
    config_.control = path(table, "control", false);
    config_.stats_json = path(table, "stats_json", false);
    config_.http = address(table, "http");
    number(table, "threads", 1, 64, config_.threads);
    const toml::node* const allow = table.get("allow");
    const toml::array* const networks = allow ? allow->as_array() : nullptr;
    if (!networks || networks->empty()) {
        fault(allow ? line_of(*allow) : line_of(table),
              "'allow' must be a list of networks that may talk to the server, such as [\"10.0.0.0/24\"]");
        return;
    }
    for (const toml::node& node : *networks) {
        const auto network = node.is_string() ? network_of(node.as_string()->get()) : std::nullopt;
        if (!network)
            fault(node, "a network is expected, such as \"10.0.0.0/24\"");
        else
            config_.allow.push_back(*network);
    }
}

void Parser::read_unknown(const toml::table& table)
{
    only(table, "[unknown]", {"policy", "group"});
    config_.unknown = static_cast<UnknownPolicy>(choice(table, "policy", {"refuse", "wait", "group"}));
    config_.unknown_group = text(table, "group").value_or("");
    if (config_.unknown == UnknownPolicy::serve && config_.unknown_group.empty())
        fault(table, "'group' is missing; the name of the group of unknown workstations is expected");
}

void Parser::read_image(const toml::key& key, const toml::node& node)
{
    if (!named(key))
        return;
    const toml::table* const table = node.as_table();
    if (!table)
        return fault(node, fmt::format("[images.{}] is expected", key.str()));
    only(*table, fmt::format("[images.{}]", key.str()), {"path", "area"});
    config_.images.push_back({std::string(key.str()), path(*table, "path", true), path(*table, "area", false),
                              key.source().begin.line});
}

void Parser::read_group(const toml::key& key, const toml::node& node)
{
    if (!named(key))
        return;
    const toml::table* const table = node.as_table();
    if (!table)
        return fault(node, fmt::format("[groups.{}] is expected", key.str()));
    only(*table, fmt::format("[groups.{}]", key.str()), {"disks", "limit_mb_s"});
    FleetGroup group{std::string(key.str()), read_disks(*table)};
    group.limit_mb_s = read_limit(*table, group.disks);
    config_.groups.push_back(std::move(group));
}

void Parser::read_workstation(const toml::key& key, const toml::node& node)
{
    if (!named(key))
        return;
    const toml::table* const table = node.as_table();
    if (!table)
        return fault(node, fmt::format("[workstations.{}] is expected", key.str()));
    only(*table, fmt::format("[workstations.{}]", key.str()), {"hardware", "group", "disks", "limit_mb_s"});
    FleetWorkstation workstation{std::string(key.str()), {}, text(*table, "group").value_or(""), {}};
    const auto hardware = hardware_of(text(*table, "hardware").value_or(""));
    if (!hardware)
        fault(table->get("hardware") ? *table->get("hardware") : node,
              "'hardware' must be a hardware address, such as \"52:54:00:12:34:56\"");
    else
        workstation.hardware = *hardware;
    if ((table->get("group") != nullptr) == (table->get("disks") != nullptr))
        fault(node, "either 'group' or 'disks' is expected");
    if (table->get("disks"))
        workstation.disks = read_disks(*table);
    else if (const toml::node* const group = table->get("group"); group && !config_.group(workstation.group))
        fault(*group, fmt::format("there is no [groups.{}]", workstation.group));
    const FleetGroup* const of_group = config_.group(workstation.group);
    workstation.limit_mb_s = read_limit(*table, of_group ? of_group->disks : workstation.disks);
    for (const FleetWorkstation& other : config_.workstations)
        if (hardware && other.hardware == *hardware)
            fault(node, fmt::format("has the hardware address of '{}'", other.name));
    config_.workstations.push_back(std::move(workstation));
}

std::vector<FleetDisk> Parser::read_disks(const toml::table& parent)
{
    const toml::node* const node = parent.get("disks");
    const toml::array* const list = node ? node->as_array() : nullptr;
    if (!list || list->empty() || list->size() > formats::disk_count_max) {
        fault(node ? line_of(*node) : line_of(parent),
              "'disks' must be a list of one to four disks, such as [{ image = \"windows\" }]");
        return {};
    }
    std::vector<FleetDisk> disks;
    for (const toml::node& one : *list) {
        if (const toml::table* const table = one.as_table())
            disks.push_back(read_disk(*table, static_cast<unsigned>(disks.size())));
        else
            fault(one, "a disk is expected, such as { image = \"windows\" }");
    }
    for (std::size_t i = 0; i < disks.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (disks[i].id && disks[i].id == disks[j].id)
                fault(*node, "two disks of one workstation have the same 'id'");
    return disks;
}

// One so low that a full window of requests takes longer than a workstation waits would have it ask again.
unsigned Parser::read_limit(const toml::table& table, const std::vector<FleetDisk>& disks)
{
    unsigned limit = 0, window_kb = 0;
    number(table, "limit_mb_s", 1, 4000, limit);
    for (const FleetDisk& disk : disks)
        window_kb += disk.slots * std::max(disk.read_kb, disk.write_kb);
    const unsigned lowest = (window_kb * 1024 * (1000 / window_ms_max) + 999'999) / 1'000'000;
    if (limit != 0 && limit < lowest)
        fault(*table.get("limit_mb_s"),
              fmt::format("'limit_mb_s' must be at least {} for these disks, or workstations ask again while "
                          "they wait",
                          lowest));
    return limit;
}

FleetDisk Parser::read_disk(const toml::table& table, unsigned lun)
{
    only(table, "a disk",
         {"image", "mode", "at_boot", "sync", "sync_seconds", "id", "read_kb", "write_kb", "slots",
          "retry_mins", "cache_mb", "mirror", "delay_load"});
    FleetDisk disk;
    disk.image = text(table, "image").value_or("");
    if (!config_.image(disk.image))
        fault(table.get("image") ? *table.get("image") : static_cast<const toml::node&>(table),
              disk.image.empty() ? "'image' is missing; the name of one of [images] is expected"
                                 : fmt::format("there is no [images.{}]", disk.image));
    disk.mode = static_cast<DiskMode>(choice(table, "mode", {"overlay", "readonly", "exclusive"}));
    disk.keep = choice(table, "at_boot", {"discard", "keep"}) == 1;
    if (table.get("at_boot") && disk.mode != DiskMode::overlay)
        fault(*table.get("at_boot"), "'at_boot' is for mode \"overlay\"");
    disk.sync = static_cast<SyncMode>(choice(table, "sync", {"none", "interval", "always"}));
    number(table, "sync_seconds", 1, 3600, disk.sync_seconds);
    disk.retry_mins = lun == 0 ? 0 : 1;
    number(table, "read_kb", 1, 16, disk.read_kb);
    number(table, "write_kb", 1, 16, disk.write_kb);
    number(table, "slots", 1, 8, disk.slots);
    number(table, "retry_mins", 0, 255, disk.retry_mins);
    number(table, "cache_mb", 1, 65535, disk.cache_mb);
    disk.mirror = address(table, "mirror");
    if (disk.mirror && disk.mode != DiskMode::exclusive)
        fault(*table.get("mirror"), "'mirror' is for mode \"exclusive\"");
    disk.delay_load = flag(table, "delay_load");
    if (disk.delay_load && lun == 0)
        fault(*table.get("delay_load"), "'delay_load' is for the disks after the first");
    if (const auto written = text(table, "id")) {
        char* end = nullptr;
        const unsigned long value = std::strtoul(written->c_str(), &end, 16);
        if (written->size() != 8 || *end != '\0' || value == 0)
            fault(*table.get("id"), "'id' must be eight hexadecimal digits, not all zero");
        else
            disk.id = static_cast<std::uint32_t>(value);
    }
    return disk;
}

void Parser::check_whole()
{
    if (config_.unknown == UnknownPolicy::serve && !config_.group(config_.unknown_group))
        fault(1, fmt::format("there is no [groups.{}] for unknown workstations", config_.unknown_group));
    if (config_.workstations.empty() && config_.unknown == UnknownPolicy::refuse)
        fault(
            1,
            "there are no [workstations], and unknown ones are refused; [unknown] with policy = \"wait\" or "
            "\"group\" would let them in");
}

FleetConfig Parser::parse(const std::string& written)
{
    try {
        const toml::table all = toml::parse(written, file_);
        only(all, "the file", {"server", "unknown", "images", "groups", "workstations"});
        const toml::table none;
        const auto each = [&](std::string_view name, auto read) {
            if (const toml::table* const tables = table(all, name))
                for (const auto& [key, node] : *tables)
                    (this->*read)(key, node);
        };
        if (const toml::table* const server = table(all, "server"))
            read_server(*server);
        else if (!all.get("server"))
            fault(1, "[server] is missing");
        each("images", &Parser::read_image);
        each("groups", &Parser::read_group);
        each("workstations", &Parser::read_workstation);
        if (const toml::table* const unknown = table(all, "unknown"))
            read_unknown(*unknown);
        if (faults_ == 0)
            check_whole();
    } catch (const toml::parse_error& error) {
        fault(error.source().begin.line, std::string(error.description()));
    }
    if (faults_ > faults_told_max)
        told_ += fmt::format("\n{}: and {} more", file_, faults_ - faults_told_max);
    if (faults_ != 0)
        throw ConfigError(told_);
    return std::move(config_);
}

}  // namespace

bool FleetDisk::operator==(const FleetDisk& other) const
{
    const auto mirror_text = [](const FleetDisk& disk) { return disk.mirror ? to_text(*disk.mirror) : ""; };
    const auto rest = [](const FleetDisk& disk) {
        return std::tie(disk.image, disk.mode, disk.keep, disk.sync, disk.sync_seconds, disk.id, disk.read_kb,
                        disk.write_kb, disk.slots, disk.retry_mins, disk.cache_mb, disk.delay_load);
    };
    return rest(*this) == rest(other) && mirror_text(*this) == mirror_text(other);
}

const FleetImage* FleetConfig::image(const std::string& name) const
{
    const auto found = std::ranges::find(images, name, &FleetImage::name);
    return found == images.end() ? nullptr : &*found;
}

const FleetGroup* FleetConfig::group(const std::string& name) const
{
    const auto found = std::ranges::find(groups, name, &FleetGroup::name);
    return found == groups.end() ? nullptr : &*found;
}

FleetConfig parse_fleet_config(const std::string& text, const std::string& file)
{
    return Parser(file).parse(text);
}

FleetConfig read_fleet_config(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    if (!stream || !(text << stream.rdbuf()))
        throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), file);
    return parse_fleet_config(text.str(), file);
}

void check_fleet_images(const FleetConfig& config, const std::string& file)
{
    std::string told;
    for (const FleetImage& image : config.images) {
        if (is_nbd_uri(image.path))
            continue;  // its server may come later
        try {
            const auto disk = open_sparse_file(image.path, true);
            if (disk->size_bytes() % formats::sector_bytes != 0)
                throw std::runtime_error(image.path + ": its size is no multiple of 512 bytes");
            check_raw_disk(*disk, image.path);
            if (!image.area.empty())
                check_image_area(*open_sparse_file(image.area, true), image.area,
                                 disk->size_bytes() / formats::sector_bytes);
        } catch (const std::exception& error) {
            told += fmt::format("{}{}:{}: {}", told.empty() ? "" : "\n", file, image.line, error.what());
        }
    }
    if (!told.empty())
        throw ConfigError(told);
}

bool fleet_name_valid(std::string_view name)
{
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
    return !name.empty() && name.size() <= 48 && name[0] != '.' &&
           name.find_first_not_of(letters) == name.npos;
}

bool is_nbd_uri(std::string_view path)
{
    const std::size_t end = path.find("://");
    const std::string_view scheme = path.substr(0, end);
    return end != path.npos &&
           (scheme == "nbd" || scheme == "nbds" || scheme.starts_with("nbd+") || scheme.starts_with("nbds+"));
}

}  // namespace server
