// SPDX-License-Identifier: MIT
// The parts of a Portable Executable file that a 32-bit driver consists of.
#pragma once

#include "formats/endian.h"

namespace machine::pe {

using formats::Le16;
using formats::Le32;

struct DosHeader {
    char Magic[2];  // dos_magic
    std::uint8_t Unused_2[58];
    Le32 File_Header;  // offset of the signature
};

struct FileHeader {
    char Signature[4];  // pe_signature
    Le16 Machine;       // machine_i386
    Le16 Section_Count;
    std::uint8_t Unused_8[12];
    Le16 Optional_Header_Bytes;
    Le16 Characteristics;
};

struct OptionalHeader {
    Le16 Magic;  // optional_magic_32
    std::uint8_t Unused_2[14];
    Le32 Entry_Point;
    std::uint8_t Unused_20[8];
    Le32 Image_Base;
    Le32 Section_Alignment;
    Le32 File_Alignment;
    std::uint8_t Unused_40[16];
    Le32 Image_Bytes;
    Le32 Header_Bytes;
    Le32 Checksum;
    Le16 Subsystem;  // subsystem_native
    std::uint8_t Unused_70[22];
    Le32 Directory_Count;
};

struct DataDirectory {
    Le32 Address;
    Le32 Bytes;
};

struct SectionHeader {
    char Name[8];
    Le32 Memory_Bytes;
    Le32 Address;
    Le32 File_Bytes;
    Le32 File_Offset;
    std::uint8_t Unused_24[12];
    Le32 Characteristics;
};

struct ImportDescriptor {
    Le32 Names;  // table of Le32: addresses of hint and name, up to a zero
    std::uint8_t Unused_4[8];
    Le32 Module_Name;
    Le32 Slots;  // table of the same length that receives the routines' addresses
};

struct ExportDirectory {
    std::uint8_t Unused_0[20];
    Le32 Address_Count;
    Le32 Name_Count;
    Le32 Addresses;  // table of Le32
    Le32 Names;      // table of Le32: addresses of names
    Le32 Indexes;    // table of Le16, beside the names: each one's place in the table of addresses
};

// Followed by Le16 entries: the type in the high 4 bits, the offset in the page in the low 12.
struct RelocationBlock {
    Le32 Page;
    Le32 Bytes;  // with this header
};

constexpr char dos_magic[] = {'M', 'Z'};
constexpr char pe_signature[] = {'P', 'E', 0, 0};
constexpr std::uint16_t machine_i386 = 0x14C;
constexpr std::uint16_t file_relocations_stripped = 0x0001;
constexpr std::uint16_t file_executable = 0x0002;
constexpr std::uint16_t optional_magic_32 = 0x10B;
constexpr std::uint16_t subsystem_native = 1;
constexpr std::uint32_t section_executable = 0x20000000;
constexpr std::uint32_t import_by_ordinal = 0x80000000;
constexpr unsigned directory_export = 0;
constexpr unsigned directory_import = 1;
constexpr unsigned directory_relocation = 5;
constexpr unsigned directory_thread_storage = 9;
constexpr unsigned directory_delay_import = 13;
constexpr unsigned relocation_padding = 0;
constexpr unsigned relocation_high_low = 3;

static_assert(sizeof(DosHeader) == 64);
static_assert(sizeof(FileHeader) == 24);
static_assert(offsetof(FileHeader, Optional_Header_Bytes) == 20);
static_assert(sizeof(OptionalHeader) == 96);
static_assert(offsetof(OptionalHeader, Entry_Point) == 16);
static_assert(offsetof(OptionalHeader, Image_Base) == 28);
static_assert(offsetof(OptionalHeader, Image_Bytes) == 56);
static_assert(offsetof(OptionalHeader, Checksum) == 64);
static_assert(offsetof(OptionalHeader, Subsystem) == 68);
static_assert(offsetof(OptionalHeader, Directory_Count) == 92);
static_assert(sizeof(DataDirectory) == 8);
static_assert(sizeof(SectionHeader) == 40);
static_assert(offsetof(SectionHeader, Characteristics) == 36);
static_assert(sizeof(ImportDescriptor) == 20);
static_assert(offsetof(ImportDescriptor, Module_Name) == 12);
static_assert(sizeof(ExportDirectory) == 40);
static_assert(offsetof(ExportDirectory, Addresses) == 28);
static_assert(sizeof(RelocationBlock) == 8);

}  // namespace machine::pe
