// SPDX-License-Identifier: MIT
#include "station/options.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "programs/version.h"

namespace station {

namespace {

// Physical memory below the addresses that a PC keeps for its devices, less the first MB.
constexpr std::uint32_t memory_mb_min = 16;
constexpr std::uint32_t memory_mb_max = 0xE0000000u / (1 << 20) - 1;
constexpr std::uint32_t above_4g_mb_max = 60 << 10;

// PAE_SIZE when --reg does not say.
constexpr std::uint32_t pae_size_mb = 3327;

constexpr char setting_names[][12] = {"TRANS_SIZE", "RW_THREADS", "HOT_RETRYS", "PAE_SIZE", "RW_RACK"};

constexpr char description[] =
    "Boots a workstation whose disks live on block servers, and exports each disk (LUN) to clients of\n"
    "the network block device protocol as lun0 to lun3; lun0 is the default export.";

constexpr char footer[] = R"(
Settings for --reg, in decimal or with 0x:
  TRANS_SIZE   largest transfer in KB, 1 to 64 (default 64)
  RW_THREADS   worker threads, 1 to 8 (default 6, or more when a disk has more slots)
  HOT_RETRYS   time-outs of a packet until a mirrored disk moves to its slave server (default 21)
  PAE_SIZE     MB of memory from which memory above 4 GB is looked for (default 3327)
  RW_RACK      protocol level of the servers (default: what the boot block says)

A local disk is a file, or a block device, with a partition for a copy of LUN 0, which the driver fills
from its server's image area (image= of qrn-server) in the background, and one for what is written, which
is forgotten at the next start. "qrn-image disk" makes one. The driver begins to copy when the system
writes 64 KB at once; for that the station writes back the last 64 KB of LUN 0 when it starts. When no
server answers, it starts with what the local disk has.

Once the disks are there, the station prints "ready" and the URI of each export, and then which servers
have answered: a disk is there before its server is. In the table of --status, and in that printed at the end, requests are those of clients, time-outs those of packets.

SIGINT and SIGTERM end it: clients are finished with, the disks get the shutdown requests of an
operating system, the statistics are printed, and the exit status is 0. A second signal ends
it at once.

Exit status 2: an argument is wrong or cannot be used; 1: the driver does not load, shows no disk,
or stopped the machine, or a local disk has nothing to start with and no server answers.
)";

std::uint32_t number(const std::string& text, const std::string& what)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* const first = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(first, end, value, hexadecimal ? 16 : 10);
    if (first == end || stop != end || error != std::errc{})
        throw OptionError(what + ": '" + text + "' is no number from 0 to 4294967295");
    return value;
}

std::pair<std::string, std::uint32_t> setting(const std::string& text)
{
    const auto equals = text.find('=');
    if (equals == std::string::npos)
        throw OptionError("--reg: expected NAME=VALUE, not '" + text + "'");
    const std::string name = text.substr(0, equals);
    if (std::find(std::begin(setting_names), std::end(setting_names), name) == std::end(setting_names))
        throw OptionError("--reg: there is no setting '" + name + "'");
    return {name, number(text.substr(equals + 1), "--reg " + name)};
}

void set_memory(Options& options, const std::string& text)
{
    constexpr char above[] = "above4g=";
    const auto comma = text.find(',');
    options.memory_mb = number(text.substr(0, comma), "--memory");
    if (options.memory_mb < memory_mb_min || options.memory_mb > memory_mb_max)
        throw OptionError("--memory: " + std::to_string(options.memory_mb) + " MB is not within " +
                          std::to_string(memory_mb_min) + " to " + std::to_string(memory_mb_max));
    if (comma == std::string::npos)
        return;
    const std::string rest = text.substr(comma + 1);
    if (!rest.starts_with(above))
        throw OptionError("--memory: expected MB[,above4g=MB], not '" + text + "'");
    options.above_4g_mb = number(rest.substr(sizeof above - 1), "--memory above4g");
    if (options.above_4g_mb > above_4g_mb_max)
        throw OptionError("--memory: at most " + std::to_string(above_4g_mb_max) + " MB above 4 GB");
    std::uint32_t gate_mb = pae_size_mb;
    for (const auto& [name, value] : options.settings)
        if (name == "PAE_SIZE")
            gate_mb = value;
    if (options.above_4g_mb != 0 && options.memory_mb < gate_mb)
        throw OptionError("--memory: the driver looks for memory above 4 GB only from " +
                          std::to_string(gate_mb) + " MB of other memory on (see PAE_SIZE)");
}

formats::Boot_Param read_boot_block(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw OptionError("--boot-block: cannot open '" + path + "'");
    formats::Boot_Param block;
    file.read(reinterpret_cast<char*>(&block), sizeof block);
    if (!file || file.peek() != std::ifstream::traits_type::eof())
        throw OptionError("--boot-block: '" + path + "' is no boot parameter block of " +
                          std::to_string(sizeof block) + " bytes");
    return block;
}

// The 640 KB of a PC that a boot program started; the block is the one that the driver is going to find
// there.
void read_low_memory(Options& options, const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw OptionError("--low-memory: cannot open '" + path + "'");
    std::vector<std::uint8_t> memory(formats::low_memory_bytes);
    file.read(reinterpret_cast<char*>(memory.data()), static_cast<std::streamsize>(memory.size()));
    if (!file)
        throw OptionError("--low-memory: '" + path + "' is shorter than 640 KB");
    const std::uint32_t base_kb = memory[formats::base_memory_kb_address] |
                                  static_cast<std::uint32_t>(memory[formats::base_memory_kb_address + 1])
                                      << 8;
    for (std::uint32_t at = base_kb * 1024; at < formats::low_memory_search_end;
         at += formats::paragraph_bytes) {
        formats::BootRecord record;
        std::memcpy(&record, memory.data() + at, sizeof record);
        if (std::memcmp(record.Signature, formats::boot_record_signature, sizeof record.Signature) == 0 &&
            record.Bound.get() <= formats::boot_record_bound_max &&
            record.Kind.get() == formats::boot_record_kind) {
            options.boot_block = record.Param;
            options.low_memory = std::move(memory);
            return;
        }
    }
    throw OptionError("--low-memory: '" + path + "' holds no boot record above its " +
                      std::to_string(base_kb) + " KB of base memory");
}

std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv)
{
    Options options;
    std::string low_memory, boot_block, handover = "low-memory", feeding = "held-back",
                                        nbd = "tcp:127.0.0.1:10809";
    std::optional<std::string> memory;
    std::vector<std::string> settings;
    std::vector<unsigned> read_only;

    CLI::App app(description, "qrn-station");
    app.set_version_flag("--version", programs::version_line("qrn-station"), "Print the version");
    app.footer(footer);
    app.add_option("--boot-block", boot_block, "the 360-byte boot parameter block")->type_name("FILE");
    app.add_option("--low-memory", low_memory,
                   "instead of a block: the first 640 KB of a PC that\nqrnboot started, record and all")
        ->option_text("FILE");
    app.add_option("--handover", handover,
                   "how the driver gets the block: from a record that a\n"
                   "boot loader left in memory, or from the transport\n"
                   "driver (default " +
                       handover + ")")
        ->check(CLI::IsMember({"low-memory", "transport"}))
        ->option_text("low-memory|transport");
    app.add_option("--nbd", nbd, "where clients connect\n(default " + nbd + ")")
        ->option_text("unix:PATH|tcp:ADDR:PORT");
    app.add_option("--driver", options.driver,
                   "the driver linked into this program (default), or a\ndriver file")
        ->option_text("builtin|FILE.sys");
    app.add_option("--feeding", feeding,
                   "how the port driver gives the driver requests of a\n"
                   "disk: the next when one is complete, as real ones\n"
                   "tend to, or all at once (default " +
                       feeding + ")")
        ->check(CLI::IsMember({"held-back", "eager"}))
        ->option_text("held-back|eager");
    app.add_option("--reg", settings, "a setting of the driver; may be repeated")
        ->option_text("NAME=VALUE")
        ->allow_extra_args(false);
    app.add_option("--memory", memory,
                   "memory that the system manages (default 512), and\n"
                   "memory above 4 GB that it leaves to the driver's\n"
                   "caches, with at least 3327 MB of the other")
        ->option_text("MB[,above4g=MB]");
    app.add_option("--local-disk", options.local_disk,
                   "boot from this local disk, with its images of the\n"
                   "block's disks (see below)")
        ->option_text("FILE");
    app.add_option("--read-only", read_only,
                   "the server drops writes to this disk (readonly), so\n"
                   "clients are told and their writes fail at once; may\nbe repeated")
        ->option_text("LUN")
        ->check(CLI::Range(0u, formats::disk_count_max - 1))
        ->allow_extra_args(false);
    app.add_option("--log", options.log, "append every message of the driver to this file")
        ->option_text("FILE");
    app.add_option("--capture", options.capture, "write every packet to this file, for Wireshark\n(pcapng)")
        ->option_text("FILE");
    app.add_option("--stats-json", options.stats_json,
                   "write statistics to this file, every second and at\nthe end")
        ->option_text("FILE");
    app.add_flag("--status", options.status, "show the statistics, live")->disable_flag_override();

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        // What is unknown may well be what is missing, misspelt.
        const auto unknown = app.remaining();
        throw OptionError(one_line(unknown.empty() ? error.what() : "unknown argument " + unknown.front()));
    }
    options.feed_eagerly = feeding == "eager";
    options.handover = handover == "transport" ? Handover::transport : Handover::low_memory;
    if (boot_block.empty() == low_memory.empty())
        throw OptionError("one of --boot-block and --low-memory is required");
    if (low_memory.empty())
        options.boot_block = read_boot_block(boot_block);
    else if (handover == "transport" || options.local_disk)
        throw OptionError("--low-memory goes with neither --handover transport nor --local-disk");
    else
        read_low_memory(options, low_memory);
    if (options.handover == Handover::transport &&
        options.boot_block.Disk_Nums == formats::disk_nums_searching)
        throw OptionError("--boot-block: its transport is still searching for a server, and the driver would "
                          "wait for ever");
    try {
        options.nbd = NbdAddress::parse(nbd);
    } catch (const std::invalid_argument& error) {
        throw OptionError(std::string("--nbd: ") + error.what());
    }
    for (const std::string& each : settings)
        options.settings.push_back(setting(each));
    for (const unsigned lun : read_only)
        options.read_only[lun] = true;
    if (memory)
        set_memory(options, *memory);
    return options;
}

}  // namespace station
