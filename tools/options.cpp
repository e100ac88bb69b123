// SPDX-License-Identifier: MIT
#include "tools/options.h"

#include <algorithm>
#include <iostream>
#include <string_view>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop

#include "programs/version.h"
#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/size_text.h"

namespace image_tool {

namespace {

constexpr char description[] =
    "Makes, looks at, compares and mends the image areas in which a workstation keeps its disks.";

constexpr char footer[] =
    R"(An AREA is a file, or a partition of a disk (file or device): FILE, FILE:system, FILE:temporary, or
FILE:1 to FILE:4. Sizes are in bytes, or with a suffix K, M, G or T: 500m, 2.5T.

A raw disk is a file of the disk's sectors, a block device, or an NBD URI such as
nbd+unix:///lun0?socket=PATH. `-` is standard input or output; what has to be read or written out of order
is kept in TMPDIR meanwhile, without its zeros.

What `create` makes of a raw disk is what a server hands out to the workstations that keep a copy: chunks
of 64 KB that hold anything but zeros, each with the tag. `update` brings it up to date: it stays the same
image, and workstations copy only the chunks that changed. A running server goes on with the old one until
it is started again.

Only `disk`, `resize`, `create`, `update`, `extract`, `convert` and `repair` write; everything else is opened
for reading. What a server or a workstation has in use is not written, and looked at with --in-use only
(`info` and `map` say so instead). A file that is being made gets its name when it is complete. Progress is
shown when standard error is a terminal.

Exit status 0: well; 1: `check` found faults, `repair` left some, `compare` found differences, `extract` or
`convert` found an area that is no whole copy of its disk; 2: wrong arguments, or a file that cannot be
read, written or made sense of.
)";

std::string size_in_bytes(const std::string& text)
{
    const auto size = parse_size(text);
    if (!size)
        throw CLI::ValidationError("'" + text + "' is no size, like 512, 64M or 2.5T");
    return std::to_string(*size);
}

using Function = int (*)(const Options&, Report&);

// What is written to standard output leaves no place there for words.
bool writes_disk_to_standard_output(Function function, const Options& options)
{
    return options.to == "-" || (function == convert_disk && options.file == "-") ||
           ((function == create_area || function == update_area) && options.area == "-");
}

Command reporting(Function function)
{
    return [function](const Options& options, std::FILE* out) {
        Report report(options.is_json, writes_disk_to_standard_output(function, options) ? stderr : out);
        const int status = function(options, report);
        report.finish();
        return status;
    };
}

class Parser {
public:
    Parser() : app_(description, "qrn-image")
    {
        app_.footer(footer);
        app_.set_version_flag("--version", programs::version_line("qrn-image"), "Print the version");
        app_.require_subcommand(1);
        add_disks();
        add_create();
        add_update();
        add_extract();
        add_convert();
        add_lookers();
        add_compare();
        add_area(add("repair", "mend what can be mended", repair_area));
    }

    CommandLine parse(int argc, const char* const* argv);

private:
    CLI::App* add(const char* name, const char* what, Function function);
    void add_disks();
    void add_create();
    void add_update();
    void add_extract();
    void add_convert();
    void add_lookers();
    void add_compare();
    void add_from(CLI::App* command)
    {
        command->add_option("--from", line_.options.from, "the raw disk")->required()->option_text("RAW");
    }
    void add_tag(CLI::App* command)
    {
        command
            ->add_option("--tag", line_.options.tag,
                         "modification tag of the image and its chunks (default 1)")
            ->check(CLI::Range(1u, UINT32_MAX).description(""))
            ->option_text("N");
    }
    void add_allow_absent(CLI::App* command)
    {
        command->add_flag("--allow-absent", line_.options.allow_absent,
                          "take zeros for what a workstation has not copied yet");
    }
    void add_in_use(CLI::App* command)
    {
        command->add_flag_callback(
            "--in-use", [this] { line_.options.in_use = InUse::allow; },
            "read what another program may be writing to");
    }
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

CLI::App* Parser::add(const char* name, const char* what, Function function)
{
    CLI::App* const added = app_.add_subcommand(name, what);
    added->callback([this, function] { line_.command = reporting(function); });
    added
        ->add_option_function<std::string>(
            "--output", [this](const std::string& form) { line_.options.is_json = form == "json"; },
            "how to say what there is to say: text (default) or json")
        ->check(CLI::IsMember({"text", "json"}).description(""))
        ->option_text("FORM");
    return added;
}

void Parser::add_disks()
{
    const auto add_sizes = [this](CLI::App* command) {
        command->add_option("FILE", line_.options.file, "the disk")->required()->option_text(" ");
        add_size(command, "--system", line_.options.system_bytes, "of the partition for the system image");
        add_size(command, "--temporary", line_.options.temporary_bytes,
                 "of the partition for the temporary image");
        return add_size(command, "--size", line_.options.size_bytes, "of the whole disk");
    };
    CLI::App* const disk =
        add("disk", "make a local disk with partitions for the system and temporary image", make_disk);
    add_sizes(disk)->required();
    add_force(disk);
    add_sizes(add("resize", "give a local disk and its partitions other sizes; the system image stays",
                  resize_disk));
}

void Parser::add_create()
{
    CLI::App* const create = add("create", "make an image area of a raw disk", create_area);
    add_area(create);
    add_from(create);
    add_tag(create);
    add_size(create, "--size-limit", line_.options.limit_bytes, "fail rather than make the area larger");
    add_force(create);
    add_in_use(create);
}

void Parser::add_update()
{
    CLI::App* const update = add("update", "bring an image area up to date with its raw disk", update_area);
    add_area(update);
    add_from(update);
    add_in_use(update);
}

void Parser::add_extract()
{
    CLI::App* const extract = add("extract", "make a raw disk of what an image area holds", extract_disk);
    add_area(extract);
    extract->add_option("--to", line_.options.to, "the raw disk")->required()->option_text("RAW");
    add_lun(extract);
    add_allow_absent(extract);
    add_force(extract);
    add_in_use(extract);
}

void Parser::add_convert()
{
    using Format = Options::Format;
    CLI::App* const convert =
        add("convert", "make a raw disk of an area, or an area of a raw disk", convert_disk);
    convert->add_option("FROM", line_.options.area, "an area or a raw disk")->required()->option_text(" ");
    convert->add_option("TO", line_.options.file, "what to make of it")->required()->option_text(" ");
    convert
        ->add_option_function<std::string>(
            "--format",
            [this](const std::string& name) {
                line_.options.format = name == "raw" ? Format::raw : Format::area;
            },
            "what to make: raw or area (default: what FROM is not)")
        ->check(CLI::IsMember({"raw", "area"}).description(""))
        ->option_text("FORMAT");
    add_tag(convert);
    add_lun(convert);
    add_allow_absent(convert);
    add_force(convert);
    add_in_use(convert);
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

    CLI::App* const check = add("check", "look for faults, and list them", check_area);
    add_area(check);
    add_in_use(check);

    CLI::App* const measure =
        add("measure", "tell how large the area of a disk is going to be", measure_area);
    measure->add_option("DISK", line_.options.area, "a raw disk or an area")->required()->option_text(" ");
    add_lun(measure);
    add_in_use(measure);
}

void Parser::add_compare()
{
    CLI::App* const compare = add("compare", "compare two disks, each raw or in an area", compare_disks);
    compare->alias("diff");
    compare->add_option("A", line_.options.area, "an area or a raw disk")->required()->option_text(" ");
    compare->add_option("B", line_.options.file, "the other one")->required()->option_text(" ");
    compare->add_flag("--all", line_.options.all, "list every run of sectors that differ");
    add_lun(compare);
    add_in_use(compare);
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
