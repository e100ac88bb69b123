// SPDX-License-Identifier: MIT
#include "machine/loader/pe_image.h"

#include <functional>
#include <random>
#include <stdexcept>

#include "tests/loader/toy_file.h"

namespace {

using namespace machine::pe;

std::string rejection(std::span<const std::uint8_t> file)
{
    try {
        machine::parse_pe_image(file);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(accepted)";
}

bool holds(const machine::PeImage& image, std::uint32_t offset)
{
    return offset <= image.layout.size() && image.layout.size() - offset >= 4;
}

void expect_safe(const machine::PeImage& image, const std::string& what)
{
    EXPECT_LT(image.entry, image.layout.size()) << what;
    for (const std::uint32_t place : image.relocations)
        ASSERT_TRUE(holds(image, place)) << what;
    for (const auto& import : image.imports)
        ASSERT_TRUE(holds(image, import.slot)) << what;
    for (const auto& exported : image.exports)
        ASSERT_LT(exported.address, image.layout.size()) << what;
}

TEST(PeImage, Every_truncation_is_rejected)
{
    ToyFile toy;
    toy.optional().Checksum.set(0);
    for (std::size_t bytes = 0; bytes < toy.bytes.size(); ++bytes) {
        // A copy of exact size, so that the address sanitizer sees any reach beyond it.
        const std::vector<std::uint8_t> cut(toy.bytes.begin(), toy.bytes.begin() + static_cast<long>(bytes));
        ASSERT_NE(rejection(cut), "(accepted)") << bytes << " bytes";
    }
}

TEST(PeImage, Each_kind_of_damage_is_named)
{
    using T = ToyFile;
    const auto first_name = [](T& t) -> Le32& {
        return t.at<Le32>(t.offset_of(".idata", t.first_import().Names.get()));
    };
    const auto exported_address = [](T& t) -> Le32& {
        return t.at<Le32>(t.offset_of(".edata", t.exports().Addresses.get()));
    };
    const struct {
        const char* message;
        std::function<void(T&)> apply;
    } damages[] = {
        {"no executable file", [](T& t) { t.bytes[0] = 'Z'; }},
        {"outside the file", [](T& t) { t.dos().File_Header.set(0xFFFFFFF0); }},
        {"no PE file", [](T& t) { t.file().Signature[0] = 'L'; }},
        {"not for 32-bit x86", [](T& t) { t.file().Machine.set(0x8664); }},
        {"stripped", [](T& t) { t.file().Characteristics.set(3); }},
        {"not a 32-bit image", [](T& t) { t.optional().Magic.set(0x20B); }},
        {"subsystem", [](T& t) { t.optional().Subsystem.set(2); }},
        {"too many directories", [](T& t) { t.optional().Directory_Count.set(0x10000000); }},
        {"too short for its directories", [](T& t) { t.file().Optional_Header_Bytes.set(96); }},
        {"size in memory", [](T& t) { t.optional().Image_Bytes.set(0x7FFFF000); }},
        {"alignment", [](T& t) { t.optional().Section_Alignment.set(0); }},
        {"number of sections", [](T& t) { t.file().Section_Count.set(0xFFFF); }},
        {"section table", [](T& t) { t.file().Section_Count.set(90); }},
        {"headers are longer", [](T& t) { t.optional().Header_Bytes.set(0x7FFF); }},
        {"section lies outside the file", [](T& t) { t.section(".text").File_Offset.set(0xFFFFFF00); }},
        {"section lies outside the image", [](T& t) { t.section(".reloc").Memory_Bytes.set(0xFFFFF000); }},
        {"overlap", [](T& t) { t.section(".data").Address = t.section(".text").Address; }},
        {"overlap", [](T& t) { t.section(".text").Address.set(0); }},
        {"not aligned",
         [](T& t) { t.section(".reloc").Address.set(t.section(".reloc").Address.get() + 16); }},
        {"entry point", [](T& t) { t.optional().Entry_Point.set(0); }},
        {"entry point", [](T& t) { t.optional().Entry_Point.set(t.section(".data").Address.get()); }},
        {"thread storage", [](T& t) { t.directory(directory_thread_storage).Bytes.set(24); }},
        {"relocations lie outside", [](T& t) { t.directory(directory_relocation).Address.set(~0u); }},
        {"bad length", [](T& t) { t.first_relocations().Bytes.set(0); }},
        {"bad length", [](T& t) { t.first_relocations().Bytes.set(0xFFFFFFFE); }},
        {"relocation lies outside", [](T& t) { t.first_relocations().Page.set(0xFFFFF000); }},
        {"unknown type", [](T& t) { (&t.first_relocations())[1].Page.set(0xA000A000); }},
        {"import table lies outside", [](T& t) { t.directory(directory_import).Address.set(0xFFFFFFFC); }},
        {"list of imports lies outside", [](T& t) { t.first_import().Names.set(0x7FFFFFFC); }},
        {"by number", [&](T& t) { first_name(t).set(0x80000007); }},
        {"routine's name lies outside", [&](T& t) { first_name(t).set(0x7FFFFFFF); }},
        {"module's name is no name", [](T& t) { t.first_import().Module_Name.set(0x3C); }},
        {"import slot", [](T& t) { t.first_import().Slots.set(0); }},
        {"export directory lies outside",
         [](T& t) { t.directory(directory_export).Address.set(0xFFFFFFF0); }},
        {"too many names", [](T& t) { t.exports().Name_Count.set(0x10000); }},
        {"list of exports lies outside", [](T& t) { t.exports().Names.set(0xFFFFFFFC); }},
        {"list of exports lies outside", [](T& t) { t.exports().Addresses.set(0x7FFFFFFC); }},
        {"has no address", [](T& t) { t.exports().Address_Count.set(0); }},
        {"export lies outside the sections", [&](T& t) { exported_address(t).set(0xFFFFFFFF); }},
        {"export lies outside the sections",
         [&](T& t) { exported_address(t) = t.directory(directory_export).Address; }},
        {"checksum", [](T& t) { t = T(), t.bytes.back() ^= 0x10; }},
    };
    for (const auto& damage : damages) {
        ToyFile toy;
        toy.optional().Checksum.set(0);
        damage.apply(toy);
        const std::string message = rejection(toy.bytes);
        EXPECT_NE(message.find(damage.message), std::string::npos)
            << "wanted: " << damage.message << "; got: " << message;
    }
}

TEST(PeImage, Random_damage_is_rejected_or_leads_nowhere_outside_the_image)
{
    constexpr unsigned rounds = 3000, seed = 1;
    ToyFile intact;
    intact.optional().Checksum.set(0);
    // Headers and tables are what the parser follows.
    const std::size_t places[] = {0, intact.file_offset(), intact.section(".idata").File_Offset.get(),
                                  intact.section(".reloc").File_Offset.get(),
                                  intact.section(".edata").File_Offset.get()};
    std::mt19937 random(seed);
    unsigned accepted = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        std::vector<std::uint8_t> bytes = intact.bytes;
        for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
            const std::size_t place = places[random() % std::size(places)] + random() % 512;
            bytes[place % bytes.size()] = static_cast<std::uint8_t>(random());
        }
        try {
            expect_safe(machine::parse_pe_image(bytes),
                        "seed " + std::to_string(seed) + ", round " + std::to_string(round));
            ++accepted;
        } catch (const std::runtime_error&) {
        }
    }
    EXPECT_GT(accepted, 0u);
    EXPECT_LT(accepted, rounds);
}

}  // namespace
