// SPDX-License-Identifier: MIT
// The command line of qrn-image.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "tools/file.h"

namespace image_tool {

struct Options {
    std::string area;  // what most commands are about
    std::string file;  // `disk`, `resize`: the disk; `compare`, `convert`: the other side
    std::string from;
    std::string to;
    std::uint64_t size_bytes = 0;
    std::uint64_t system_bytes = 0;
    std::uint64_t temporary_bytes = 0;
    std::uint64_t limit_bytes = 0;  // 0: none
    std::uint32_t tag = 1;
    unsigned lun = 0;
    unsigned width = 64;
    bool force = false;
    bool ascii = false;
    bool all = false;
    bool allow_absent = false;
    bool is_json = false;
    InUse in_use = InUse::refuse;
    enum class Format { other, raw, area } format = Format::other;  // what `convert` makes
};

// Does what it is for, prints to the file and returns the program's exit status.
using Command = std::function<int(const Options&, std::FILE*)>;

struct CommandLine {
    Options options;
    Command command;  // none: only help was asked for, and is printed
};

// Throws ToolError.
CommandLine parse_options(int argc, const char* const* argv);

}  // namespace image_tool
