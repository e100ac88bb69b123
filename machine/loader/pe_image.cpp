// SPDX-License-Identifier: MIT
#include "machine/loader/pe_image.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "machine/loader/pe_format.h"

namespace machine {
namespace {

using namespace pe;
using Bytes = std::span<const std::uint8_t>;

constexpr std::uint32_t image_bytes_max = 16u << 20;
constexpr unsigned section_count_max = 96;
constexpr unsigned directory_count_max = 16;
constexpr unsigned import_count_max = 4096;
constexpr unsigned export_count_max = 256;
constexpr unsigned name_bytes_max = 256;
constexpr std::uint32_t page_bytes = 4096;

[[noreturn]] void reject(const std::string& what)
{
    throw std::runtime_error(what);
}

void require(bool condition, const char* what)
{
    if (!condition)
        reject(what);
}

bool within(std::size_t total, std::uint64_t offset, std::uint64_t bytes)
{
    return offset <= total && bytes <= total - offset;
}

// The structure at an offset that comes from the file itself.
template <typename Structure>
Structure read(Bytes from, std::uint64_t offset, const char* what)
{
    if (!within(from.size(), offset, sizeof(Structure)))
        reject(std::string(what) + " lies outside the file");
    Structure structure;
    std::memcpy(&structure, from.data() + offset, sizeof structure);
    return structure;
}

std::string read_name(Bytes from, std::uint32_t offset, const char* what)
{
    std::string name;
    for (std::uint64_t at = offset; name.size() < name_bytes_max; ++at) {
        const auto character = read<char>(from, at, what);
        if (character == 0) {
            if (name.empty())
                break;
            return name;
        }
        if (character <= ' ' || character > '~')
            break;
        name += character;
    }
    reject(std::string(what) + " is no name");
}

struct Headers {
    FileHeader file;
    OptionalHeader optional;
    std::uint64_t optional_offset;
    std::uint64_t sections_offset;

    DataDirectory directory(Bytes bytes, unsigned index) const
    {
        if (index >= optional.Directory_Count.get())
            return {};
        return read<DataDirectory>(
            bytes, optional_offset + sizeof(OptionalHeader) + index * sizeof(DataDirectory), "a directory");
    }
};

Headers read_headers(Bytes file)
{
    Headers headers;
    const auto dos = read<DosHeader>(file, 0, "the first header");
    require(std::equal(dos_magic, std::end(dos_magic), dos.Magic), "no executable file");
    const std::uint64_t offset = dos.File_Header.get();
    headers.file = read<FileHeader>(file, offset, "the file header");
    require(std::equal(pe_signature, std::end(pe_signature), headers.file.Signature), "no PE file");
    require(headers.file.Machine.get() == machine_i386, "not for 32-bit x86");
    require(headers.file.Characteristics.get() & file_executable, "not marked as executable");
    require(!(headers.file.Characteristics.get() & file_relocations_stripped),
            "its relocations are stripped: it cannot be loaded");
    headers.optional_offset = offset + sizeof(FileHeader);
    headers.optional = read<OptionalHeader>(file, headers.optional_offset, "the optional header");
    require(headers.optional.Magic.get() == optional_magic_32, "not a 32-bit image");
    require(headers.optional.Subsystem.get() == subsystem_native, "no driver: its subsystem is not native");
    require(headers.optional.Directory_Count.get() <= directory_count_max, "too many directories");
    require(headers.file.Optional_Header_Bytes.get() >=
                sizeof(OptionalHeader) + headers.optional.Directory_Count.get() * sizeof(DataDirectory),
            "the optional header is too short for its directories");
    headers.sections_offset = headers.optional_offset + headers.file.Optional_Header_Bytes.get();
    return headers;
}

// The checksum that the linker puts into a driver: 16-bit ones' complement sum, plus the length.
void check_checksum(Bytes file, const Headers& headers)
{
    const std::uint32_t stated = headers.optional.Checksum.get();
    if (stated == 0)
        return;
    const std::uint64_t field = headers.optional_offset + offsetof(OptionalHeader, Checksum);
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < file.size(); at += 2) {
        const bool in_field = at >= field && at < field + sizeof(Le32);
        const std::uint32_t high = at + 1 < file.size() ? file[at + 1] : 0u;
        sum += in_field ? 0 : file[at] | high << 8;
    }
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    require(static_cast<std::uint32_t>(sum + file.size()) == stated,
            "damaged: its contents do not match its checksum");
}

void check_geometry(Bytes file, const Headers& headers)
{
    const OptionalHeader& optional = headers.optional;
    const std::uint32_t image_bytes = optional.Image_Bytes.get();
    const std::uint32_t header_bytes = optional.Header_Bytes.get();
    const unsigned section_count = headers.file.Section_Count.get();
    require(image_bytes > 0 && image_bytes <= image_bytes_max, "its size in memory is out of bounds");
    require(std::has_single_bit(optional.Section_Alignment.get()) &&
                optional.Section_Alignment.get() <= page_bytes,
            "its section alignment is no power of two up to a page");
    require(section_count > 0 && section_count <= section_count_max,
            "its number of sections is out of bounds");
    require(header_bytes <= image_bytes && header_bytes <= file.size(),
            "its headers are longer than the file");
    require(headers.sections_offset + section_count * sizeof(SectionHeader) <= header_bytes,
            "its section table lies outside the headers");
}

struct Section {
    std::uint32_t begin, end;  // image offsets
    bool executable;
};

// Copies one section to its place in the image.
Section place_section(Bytes file, const SectionHeader& header, std::vector<std::uint8_t>& layout)
{
    const std::uint32_t file_bytes = header.File_Bytes.get();
    const std::uint32_t memory_bytes = header.Memory_Bytes.get() ? header.Memory_Bytes.get() : file_bytes;
    const std::uint32_t address = header.Address.get();
    require(within(layout.size(), address, memory_bytes), "a section lies outside the image");
    if (file_bytes != 0) {
        require(within(file.size(), header.File_Offset.get(), file_bytes), "a section lies outside the file");
        std::memcpy(layout.data() + address, file.data() + header.File_Offset.get(),
                    std::min(file_bytes, memory_bytes));
    }
    return {address, address + memory_bytes, (header.Characteristics.get() & section_executable) != 0};
}

std::vector<Section> place_sections(Bytes file, const Headers& headers, std::vector<std::uint8_t>& layout)
{
    std::vector<Section> sections;
    std::uint32_t end = headers.optional.Header_Bytes.get();
    for (unsigned i = 0; i < headers.file.Section_Count.get(); ++i) {
        const auto header = read<SectionHeader>(file, headers.sections_offset + i * sizeof(SectionHeader),
                                                "a section header");
        const Section section = place_section(file, header, layout);
        require(section.begin >= end, "its sections overlap or are out of order");
        require(section.begin % headers.optional.Section_Alignment.get() == 0, "a section is not aligned");
        end = section.end;
        sections.push_back(section);
    }
    return sections;
}

bool inside_a_section(const std::vector<Section>& sections, std::uint32_t address, std::uint32_t bytes)
{
    return std::any_of(sections.begin(), sections.end(), [=](const Section& section) {
        return address >= section.begin && address < section.end && bytes <= section.end - address;
    });
}

std::vector<std::uint32_t> read_relocations(Bytes layout, const DataDirectory& directory,
                                            const std::vector<Section>& sections)
{
    std::vector<std::uint32_t> relocations;
    require(within(layout.size(), directory.Address.get(), directory.Bytes.get()),
            "the relocations lie outside the image");
    const Bytes table = layout.subspan(directory.Address.get(), directory.Bytes.get());
    std::uint32_t block_bytes = 0;
    for (std::uint32_t at = 0; at < table.size(); at += block_bytes) {
        const auto block = read<RelocationBlock>(table, at, "a relocation block");
        block_bytes = block.Bytes.get();
        require(block_bytes >= sizeof block && block_bytes % 2 == 0 && within(table.size(), at, block_bytes),
                "a relocation block has a bad length");
        for (std::uint32_t offset = sizeof block; offset < block_bytes; offset += sizeof(Le16)) {
            const unsigned entry = read<Le16>(table, at + offset, "a relocation").get();
            const unsigned type = entry >> 12;
            if (type == relocation_padding)
                continue;
            require(type == relocation_high_low, "a relocation is of an unknown type");
            const std::uint32_t place = block.Page.get() + (entry & 0xFFF);
            require(inside_a_section(sections, place, sizeof(Le32)),
                    "a relocation lies outside the sections");
            relocations.push_back(place);
        }
    }
    return relocations;
}

void read_module_imports(Bytes layout, const ImportDescriptor& descriptor,
                         const std::vector<Section>& sections, std::vector<PeImport>& imports)
{
    const std::string module = read_name(layout, descriptor.Module_Name.get(), "an imported module's name");
    const std::uint32_t slots = descriptor.Slots.get();
    const std::uint32_t names = descriptor.Names.get() ? descriptor.Names.get() : slots;
    for (std::uint32_t index = 0;; ++index) {
        require(imports.size() < import_count_max, "it imports too many routines");
        const std::uint64_t offset = std::uint64_t{index} * sizeof(Le32);
        const std::uint32_t name = read<Le32>(layout, names + offset, "the list of imports").get();
        if (name == 0)
            return;
        require(!(name & import_by_ordinal), "it imports a routine by number");
        const std::uint64_t slot = slots + offset;
        require(slot <= layout.size() &&
                    inside_a_section(sections, static_cast<std::uint32_t>(slot), sizeof(Le32)),
                "an import slot lies outside the sections");
        imports.push_back({module, read_name(layout, name + sizeof(Le16), "an imported routine's name"),
                           static_cast<std::uint32_t>(slot)});
    }
}

std::vector<PeImport> read_imports(Bytes layout, const DataDirectory& directory,
                                   const std::vector<Section>& sections)
{
    std::vector<PeImport> imports;
    if (directory.Address.get() == 0)
        return imports;
    for (std::uint64_t at = directory.Address.get();; at += sizeof(ImportDescriptor)) {
        const auto descriptor = read<ImportDescriptor>(layout, at, "the import table");
        if (descriptor.Module_Name.get() == 0 && descriptor.Slots.get() == 0)
            return imports;
        read_module_imports(layout, descriptor, sections, imports);
    }
}

// An address inside the directory itself would be the name of another module's routine.
bool forwards(const DataDirectory& directory, std::uint32_t address)
{
    return address - directory.Address.get() < directory.Bytes.get();
}

std::vector<PeExport> read_exports(Bytes layout, const DataDirectory& place,
                                   const std::vector<Section>& sections)
{
    std::vector<PeExport> exports;
    if (place.Address.get() == 0)
        return exports;
    const auto directory = read<ExportDirectory>(layout, place.Address.get(), "the export directory");
    require(directory.Name_Count.get() <= export_count_max, "it exports too many names");
    for (std::uint64_t i = 0; i < directory.Name_Count.get(); ++i) {
        const auto name = read<Le32>(layout, directory.Names.get() + i * sizeof(Le32), "the list of exports");
        const auto index =
            read<Le16>(layout, directory.Indexes.get() + i * sizeof(Le16), "the list of exports").get();
        require(index < directory.Address_Count.get(), "an exported name has no address");
        const auto address =
            read<Le32>(layout, directory.Addresses.get() + std::uint64_t{index} * sizeof(Le32),
                       "the list of exports")
                .get();
        require(inside_a_section(sections, address, 1) && !forwards(place, address),
                "an export lies outside the sections");
        exports.push_back({read_name(layout, name.get(), "an exported name"), address});
    }
    return exports;
}

}  // namespace

PeImage parse_pe_image(std::span<const std::uint8_t> file)
{
    const Headers headers = read_headers(file);
    check_checksum(file, headers);
    check_geometry(file, headers);
    require(headers.directory(file, directory_thread_storage).Bytes.get() == 0 &&
                headers.directory(file, directory_delay_import).Bytes.get() == 0,
            "it has thread storage or delayed imports, which drivers do not have");

    PeImage image;
    image.preferred_base = headers.optional.Image_Base.get();
    image.layout.resize(headers.optional.Image_Bytes.get());
    std::copy_n(file.begin(), headers.optional.Header_Bytes.get(), image.layout.begin());
    const std::vector<Section> sections = place_sections(file, headers, image.layout);
    image.entry = headers.optional.Entry_Point.get();
    require(std::any_of(sections.begin(), sections.end(),
                        [&image](const Section& section) {
                            return section.executable && image.entry >= section.begin &&
                                   image.entry < section.end;
                        }),
            "its entry point is not in its code");
    image.relocations =
        read_relocations(image.layout, headers.directory(file, directory_relocation), sections);
    image.imports = read_imports(image.layout, headers.directory(file, directory_import), sections);
    image.exports = read_exports(image.layout, headers.directory(file, directory_export), sections);
    return image;
}

}  // namespace machine
