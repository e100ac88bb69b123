// SPDX-License-Identifier: MIT
#include "server/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstring>
#include <iostream>
#include <string_view>

#include <fmt/format.h>

#include "programs/version.h"

namespace server {

namespace {

constexpr char description[] = "Serves disk images and block devices to diskless workstations over UDP.";

constexpr char details[] = R"(
Takes --listen and --disk, or --config. The configuration file is described in qrn-server(1).

A --disk is a raw image file or a block device, with options behind commas (so its path has none):
  id=HEX           eight digits, the disk's name on the wire; 515200NN by default, NN counted from
                   01, and 515210NN with mirror=. Bit 10 of the third byte marks a mirrored disk.
  read_kb=N        size of a read packet, 1 to 16 (default 16)
  write_kb=N       size of a write packet, 1 to 16 (default 16)
  slots=N          requests that the workstation keeps under way, 1 to 8 (default 4)
  retry_mins=N     after how many minutes without an answer a request fails, 0 to 255; 0: never
                   (default 0 for the first disk, 1 for the others)
  mirror=ADDR:PORT a slave server that gets every write too, and takes over when this one is gone:
                   the same program on a copy of the disk, with the same id= and without mirror=
  delay_load       not ready until the first disk has been written to in earnest; not for the first
  readonly         writes are dropped
  cache_mb=N       the workstation keeps a cache of N MB for the disk in its memory, 1 to 65535.
                   Writes stay there until their room is needed, and are lost when the workstation
                   stops: for disks whose writes need not outlive it
  image=AREA       an image area of the same disk, as "qrn-image create" makes it: workstations that
                   boot from a local disk copy it there

Four disks at most, the first is LUN 0. A writable disk is locked against other servers.

Once it serves, the server prints "ready ADDR:PORT". Signals:
  SIGINT, SIGTERM, SIGHUP
                   write everything back, print a summary and exit with status 0
  SIGUSR1          tell the workstations to give up soon what is under way and does not complete
  SIGUSR2          write everything back

Exit status 2: an argument is wrong or cannot be served; 1: serving failed.)";

[[noreturn]] void refuse(std::string_view subject, std::string_view reason)
{
    throw UsageError(fmt::format("{}: {}", subject, reason));
}

template <typename Value>
Value parse_number(std::string_view subject, std::string_view text, unsigned low, unsigned high)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < low || value > high)
        refuse(subject, fmt::format("'{}' is not a number from {} to {}", text, low, high));
    return static_cast<Value>(value);
}

formats::ServerRecord parse_host(std::string_view subject, std::string_view text)
{
    const auto record = host_of(text);
    if (!record)
        refuse(subject, fmt::format("'{}' is not an IPv4 address", text));
    return *record;
}

formats::ServerRecord parse_address(std::string_view subject, std::string_view text, unsigned lowest_port)
{
    const std::size_t colon = text.rfind(':');
    if (colon == text.npos)
        refuse(subject, fmt::format("'{}' is not of the form ADDR:PORT", text));
    formats::ServerRecord record = parse_host(subject, text.substr(0, colon));
    record.Port.set(parse_number<std::uint16_t>(subject, text.substr(colon + 1), lowest_port, 65535));
    return record;
}

void parse_id(std::string_view subject, std::string_view text, std::uint8_t (&id)[4])
{
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.size() != 8 || error != std::errc{} || end != text.data() + text.size())
        refuse(subject, fmt::format("id '{}' is not eight hexadecimal digits", text));
    formats::Be32 wire;
    wire.set(value);
    std::memcpy(id, &wire, sizeof id);
}

// One option of a disk. False: there is none of this name.
bool apply(ServedDisk& disk, std::string_view subject, std::string_view name, std::string_view value)
{
    const std::string where = fmt::format("{}: {}", subject, name);
    if (name == "id")
        parse_id(subject, value, disk.id);
    else if (name == "read_kb")
        disk.read_kb = parse_number<unsigned>(where, value, 1, 16);
    else if (name == "write_kb")
        disk.write_kb = parse_number<unsigned>(where, value, 1, 16);
    else if (name == "slots")
        disk.slots = parse_number<unsigned>(where, value, 1, 8);
    else if (name == "retry_mins")
        disk.retry_mins = parse_number<unsigned>(where, value, 0, 255);
    else if (name == "cache_mb")
        disk.cache_mb = parse_number<unsigned>(where, value, 1, 65535);
    else if (name == "image" && !value.empty())
        disk.image_path = value;
    else if (name == "mirror")
        disk.mirror = parse_address(where, value, 1);
    else if (name == "delay_load" && value.empty())
        disk.delay_load = true;
    else if (name == "readonly" && value.empty())
        disk.readonly = true;
    else
        return false;
    return true;
}

// Ids that nobody has to choose: the same on every server that has the same disks.
void set_default_id(ServedDisk& disk, unsigned lun)
{
    disk.id[0] = 0x51;
    disk.id[1] = 0x52;
    disk.id[2] = disk.mirror ? formats::disk_id_mirror : 0;
    disk.id[3] = static_cast<std::uint8_t>(lun + 1);
}

ServedDisk parse_disk(const std::string& text, unsigned lun)
{
    const std::string subject = "--disk " + text;
    ServedDisk disk{};
    disk.retry_mins = lun == 0 ? 0 : 1;
    bool has_id = false;
    std::string_view rest = text;
    const auto take_field = [&rest] {
        const std::string_view field = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(field.size() + 1, rest.size()));
        return field;
    };
    disk.path = take_field();
    if (disk.path.empty())
        refuse(subject, "the path is missing");
    while (!rest.empty()) {
        const std::string_view field = take_field();
        const std::size_t equals = field.find('=');
        const std::string_view name = field.substr(0, equals);
        const std::string_view value = equals == field.npos ? "" : field.substr(equals + 1);
        if (!apply(disk, subject, name, value))
            refuse(subject, fmt::format("'{}' is no option of a disk", field));
        has_id |= name == "id";
    }
    if (!has_id)
        set_default_id(disk, lun);
    if (disk.mirror && (disk.id[2] & formats::disk_id_mirror) == 0)
        refuse(subject, "mirror= needs an id with bit 10 of its third byte set");
    if (disk.mirror && !disk.mirror->names_a_server())
        refuse(subject, "mirror= needs the address of a server");
    if (disk.delay_load && lun == 0)
        refuse(subject, "delay_load is for the disks after the first, which it waits for");
    return disk;
}

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv)
{
    CLI::App app(description, "qrn-server");
    app.set_version_flag("--version", programs::version_line("qrn-server"), "Print the version");
    app.footer(details);
    std::string listen, advertise;
    std::vector<std::string> disks, allowed;
    Options options;
    app.add_option("--listen", listen, "UDP address and port to serve on; port 0 takes any free one")
        ->type_name("ADDR:PORT");
    app.add_option("--disk", disks, "a disk to serve (see below); may be given four times")
        ->type_name("PATH[,OPTION]...")
        ->allow_extra_args(false);
    app.add_option(
           "--allow", allowed,
           "only packets from this network are heard (that of the address to listen on); may be repeated")
        ->type_name("ADDR/BITS")
        ->allow_extra_args(false);
    app.add_option("--boot-block", options.boot_block_path,
                   "write the 360-byte boot parameter block of these disks")
        ->type_name("FILE");
    app.add_option("--advertise", advertise,
                   "the server's address for workstations, when it listens on 0.0.0.0")
        ->type_name("ADDR");
    app.add_option("--stats-json", options.stats_json_path, "write statistics every second and at exit")
        ->type_name("FILE");
    app.add_option("--poll-interval", options.poll_interval_s,
                   "ask a workstation for its status every so many seconds, for the statistics")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 86400u).description(""));
    std::string check_config;
    CLI::Option* const config =
        app.add_option("--config", options.config_path, "serve many workstations, as this file says")
            ->type_name("FILE");
    CLI::Option* const check =
        app.add_option("--check-config", check_config, "only say what is wrong with such a file")
            ->type_name("FILE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help() << '\n';
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        // What is unknown may well be what is missing, misspelt.
        if (const auto unknown = app.remaining(); !unknown.empty())
            throw UsageError("unknown argument " + unknown.front());
        throw UsageError(error.what());
    }
    if (*config || *check) {
        for (const CLI::Option* given : app.parse_order())
            if (given != (*config ? config : check))
                refuse(given->get_name(),
                       "goes with neither --config nor --check-config; say it in the file");
        options.check_only = !*config;
        if (options.check_only)
            options.config_path = check_config;
        return options;
    }
    if (listen.empty())
        refuse("--listen", "is required");
    if (disks.empty())
        refuse("--disk", "is required");
    options.listen = parse_address("--listen", listen, 0);
    options.allow = networks_of(options.listen);
    if (!allowed.empty())
        options.allow.clear();
    for (const std::string& text : allowed) {
        const auto network = network_of(text);
        if (!network)
            refuse("--allow", fmt::format("'{}' is no network such as 10.0.0.0/24", text));
        options.allow.push_back(*network);
    }
    if (!advertise.empty())
        options.advertise = parse_host("--advertise", advertise);
    if (disks.size() > formats::disk_count_max)
        refuse("--disk",
               fmt::format("{} disks given, at most {} are served", disks.size(), formats::disk_count_max));
    for (const std::string& disk : disks)
        options.disks.push_back(parse_disk(disk, static_cast<unsigned>(options.disks.size())));
    const bool needs_address = !options.boot_block_path.empty() || options.poll_interval_s != 0;
    const formats::ServerRecord& told = options.advertise ? *options.advertise : options.listen;
    if (needs_address && !told.names_a_server())
        refuse("--listen", "workstations cannot be told 0.0.0.0; give the server's address with --advertise");
    return options;
}

}  // namespace server
