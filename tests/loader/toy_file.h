// SPDX-License-Identifier: MIT
// The toy driver file, and ways to damage it.
#pragma once

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine/loader/pe_format.h"

class ToyFile {
public:
    ToyFile()
    {
        std::ifstream file(TOY_DRIVER, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
        EXPECT_GT(bytes.size(), 1024u) << TOY_DRIVER;
    }

    std::vector<std::uint8_t> bytes;

    template <typename Structure>
    Structure& at(std::size_t offset)
    {
        return *reinterpret_cast<Structure*>(bytes.data() + offset);
    }

    machine::pe::DosHeader& dos() { return at<machine::pe::DosHeader>(0); }
    std::size_t file_offset() { return dos().File_Header.get(); }
    machine::pe::FileHeader& file() { return at<machine::pe::FileHeader>(file_offset()); }
    std::size_t optional_offset() { return file_offset() + sizeof(machine::pe::FileHeader); }
    machine::pe::OptionalHeader& optional() { return at<machine::pe::OptionalHeader>(optional_offset()); }
    machine::pe::DataDirectory& directory(unsigned index)
    {
        return at<machine::pe::DataDirectory>(optional_offset() + sizeof(machine::pe::OptionalHeader) +
                                              index * sizeof(machine::pe::DataDirectory));
    }
    machine::pe::SectionHeader& section(const char* name)
    {
        const std::size_t first = optional_offset() + file().Optional_Header_Bytes.get();
        for (unsigned i = 0; i < file().Section_Count.get(); ++i) {
            auto& header = at<machine::pe::SectionHeader>(first + i * sizeof(machine::pe::SectionHeader));
            if (std::strncmp(header.Name, name, sizeof header.Name) == 0)
                return header;
        }
        throw std::logic_error(std::string("the toy driver has no section ") + name);
    }
    // Where an address of the image stands in the file.
    std::size_t offset_of(const char* section_name, std::uint32_t address)
    {
        const machine::pe::SectionHeader& header = section(section_name);
        return address - header.Address.get() + header.File_Offset.get();
    }
    machine::pe::ImportDescriptor& first_import()
    {
        return at<machine::pe::ImportDescriptor>(
            offset_of(".idata", directory(machine::pe::directory_import).Address.get()));
    }
    machine::pe::ExportDirectory& exports()
    {
        return at<machine::pe::ExportDirectory>(
            offset_of(".edata", directory(machine::pe::directory_export).Address.get()));
    }
    machine::pe::RelocationBlock& first_relocations()
    {
        return at<machine::pe::RelocationBlock>(
            offset_of(".reloc", directory(machine::pe::directory_relocation).Address.get()));
    }
    // Another text of the same length for every place where this one stands.
    void replace(const std::string& text, const std::string& by)
    {
        ASSERT_EQ(text.size(), by.size());
        unsigned found = 0;
        for (std::size_t i = 0; i + text.size() <= bytes.size(); ++i)
            if (std::memcmp(bytes.data() + i, text.data(), text.size()) == 0) {
                std::memcpy(bytes.data() + i, by.data(), by.size());
                ++found;
            }
        ASSERT_GT(found, 0u) << text;
    }
};
