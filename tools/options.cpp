// SPDX-License-Identifier: MIT
#include "tools/options.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <string_view>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "programs/version.h"
#include "tools/commands.h"
#include "tools/errors.h"

namespace image_tool {

namespace {

constexpr char description[] =
    "Makes, looks at and checks the image areas in which a workstation keeps its disks.";

constexpr char footer[] =
    R"(An AREA is a file, or a partition of a disk (file or device): FILE, FILE:system, FILE:temporary, or
FILE:1 to FILE:4. Sizes are in bytes, or with a suffix K, M, G or T.

A raw disk is a file of the disk's sectors. What `create` makes of it is what a server hands out to the
workstations that keep a copy: chunks of 64 KB that hold anything but zeros, each with the tag.

Only `disk`, `create` and `extract` write; everything else is opened for reading. A file that is being
made gets its name when it is complete. Progress is shown when standard error is a terminal.

Exit status 0: well; 1: `check` found faults, `diff` found differences; 2: wrong arguments, or a file
that cannot be read, written or made sense of.
)";

// "64M" to "67108864".
std::string size_in_bytes(const std::string& text)
{
    constexpr std::string_view suffixes = "KMGT";
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    const std::size_t power = stop == end ? 0 : suffixes.find(*stop) + 1;
    const bool is_suffix = stop == end || (power != 0 && stop + 1 == end);
    if (error != std::errc{} || !is_suffix || value == 0 || value > UINT64_MAX >> 10 * power)
        throw CLI::ValidationError("'" + text + "' is no size, like 512, 64M or 2G");
    return std::to_string(value << 10 * power);
}

class Parser {
public:
    Parser() : app_(description, "qrn-image")
    {
        app_.footer(footer);
        app_.set_version_flag("--version", programs::version_line("qrn-image"), "Print the version");
        app_.require_subcommand(1);
        add_disk();
        add_create();
        add_extract();
        add_lookers();
    }

    CommandLine parse(int argc, const char* const* argv);

private:
    CLI::App* add(const char* name, const char* what, Command command);
    void add_disk();
    void add_create();
    void add_extract();
    void add_lookers();
    void add_area(CLI::App* command)
    {
        command->add_option("AREA", line_.options.area, "the image area")->required()->option_text(" ");
    }
    void add_force(CLI::App* command)
    {
        command->add_flag("--force", line_.options.force, "overwrite what is there");
    }
    void add_lun(CLI::App* command)
    {
        command->add_option("--lun", line_.options.lun, "the disk, when the area holds several (default 0)")
            ->check(CLI::Range(0u, 7u).description(""))
            ->option_text("N");
    }
    static CLI::Option* add_size(CLI::App* command, const char* name, std::uint64_t& value, const char* what)
    {
        return command->add_option(name, value, what)->transform(size_in_bytes)->option_text("SIZE");
    }

    CLI::App app_;
    CommandLine line_;
};

CLI::App* Parser::add(const char* name, const char* what, Command command)
{
    CLI::App* const added = app_.add_subcommand(name, what);
    added->callback([this, command] { line_.command = command; });
    return added;
}

void Parser::add_disk()
{
    CLI::App* const disk =
        add("disk", "make a local disk with partitions for the system and temporary image", make_disk);
    disk->add_option("FILE", line_.options.file, "the disk")->required()->option_text(" ");
    add_size(disk, "--size", line_.options.size_bytes, "of the whole disk")->required();
    add_size(disk, "--system", line_.options.system_bytes, "of the partition for the system image");
    add_size(disk, "--temporary", line_.options.temporary_bytes, "of the partition for the temporary image");
    add_force(disk);
}

void Parser::add_create()
{
    CLI::App* const create = add("create", "make an image area of a raw disk", create_area);
    add_area(create);
    create->add_option("--from", line_.options.from, "the raw disk")->required()->option_text("RAW");
    create->add_option("--tag", line_.options.tag, "modification tag of the image and its chunks (default 1)")
        ->check(CLI::Range(1u, UINT32_MAX).description(""))
        ->option_text("N");
    add_size(create, "--size-limit", line_.options.limit_bytes, "fail rather than make the area larger");
    add_force(create);
}

void Parser::add_extract()
{
    CLI::App* const extract = add("extract", "make a raw disk of what an image area holds", extract_disk);
    add_area(extract);
    extract->add_option("--to", line_.options.to, "the raw disk; absent sectors become zeros")
        ->required()
        ->option_text("RAW");
    add_lun(extract);
    add_force(extract);
}

void Parser::add_lookers()
{
    add_area(add("info", "show the header", show_info));

    CLI::App* const map = add("map", "show what is present, in numbers and as a picture", show_map);
    add_area(map);
    map->add_option("--width", line_.options.width, "of the picture (default 64)")
        ->check(CLI::Range(8u, 512u).description(""))
        ->option_text("COLUMNS");
    map->add_flag("--ascii", line_.options.ascii, "draw with plain characters");
    map->add_flag("--all", line_.options.all, "list every run of chunks");

    add_area(add("check", "look for faults, and list them", check_area));

    CLI::App* const diff = add("diff", "compare two areas, or an area and a raw disk", diff_disks);
    diff->add_option("A", line_.options.area, "an area or a raw disk")->required()->option_text(" ");
    diff->add_option("B", line_.options.file, "the other one")->required()->option_text(" ");
    diff->add_flag("--all", line_.options.all, "list every run of sectors that differ");
    add_lun(diff);
}

std::string one_line(std::string text)
{
    std::ranges::replace(text, '\n', ' ');
    while (text.ends_with(' '))
        text.pop_back();
    return text;
}

CommandLine Parser::parse(int argc, const char* const* argv)
{
    try {
        app_.parse(argc, argv);
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << '\n';
        return {};
    } catch (const CLI::CallForHelp&) {
        // Of the command that it was asked for.
        const auto chosen = app_.get_subcommands();
        std::cout << (chosen.empty() ? app_.help("", CLI::AppFormatMode::All)
                                     : chosen.front()->help("qrn-image"));
        return {};
    } catch (const CLI::ParseError& error) {
        // What is unknown may well be what is missing, misspelt.
        const auto unknown = app_.remaining(true);
        throw ToolError(one_line(unknown.empty() ? error.what() : "unknown argument " + unknown.front()));
    }
    return std::move(line_);
}

}  // namespace

CommandLine parse_options(int argc, const char* const* argv)
{
    return Parser().parse(argc, argv);
}

}  // namespace image_tool
