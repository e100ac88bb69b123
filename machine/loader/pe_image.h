// SPDX-License-Identifier: MIT
// A driver file taken apart and checked: everything that loading needs, and nothing that could lead
// it outside the image. Pure: no kernel, no mapping. Whatever is wrong with the file throws
// std::runtime_error with one line that says what.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace machine {

struct PeImport {
    std::string module;  // as the file writes it
    std::string routine;
    std::uint32_t slot;  // image offset of the dword that receives its address
};

struct PeExport {
    std::string name;
    std::uint32_t address;  // image offset, inside a section
};

struct PeImage {
    std::vector<std::uint8_t> layout;        // the image as it lies in memory, not yet relocated
    std::uint32_t preferred_base;            // what the addresses in layout assume
    std::uint32_t entry;                     // image offset, inside an executable section
    std::vector<std::uint32_t> relocations;  // image offsets of dwords that hold addresses
    std::vector<PeImport> imports;
    std::vector<PeExport> exports;
};

PeImage parse_pe_image(std::span<const std::uint8_t> file);

}  // namespace machine
