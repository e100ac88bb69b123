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
}

TEST(PeImage, The_toy_driver_is_taken_apart)
{
    ToyFile toy;
    const machine::PeImage image = machine::parse_pe_image(toy.bytes);
    expect_safe(image, "the toy");
    EXPECT_EQ(image.preferred_base, 0x10000u);
    EXPECT_FALSE(image.relocations.empty());
    for (const std::uint32_t place : image.relocations) {
        std::uint32_t address;
        std::memcpy(&address, image.layout.data() + place, sizeof address);
        EXPECT_GE(address, image.preferred_base);
        EXPECT_LT(address, image.preferred_base + image.layout.size());
    }
    const auto imports = [&image](const char* module, const char* routine) {
        for (const auto& import : image.imports)
            if (import.module == module && import.routine == routine)
                return true;
        return false;
    };
    EXPECT_TRUE(imports("ntoskrnl.exe", "DbgPrint"));
    EXPECT_TRUE(imports("HAL.dll", "KfAcquireSpinLock"));
    EXPECT_FALSE(imports("HAL.dll", "DbgPrint"));
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

struct Damage {
    const char* message;
    std::function<void(ToyFile&)> apply;
};

TEST(PeImage, Each_kind_of_damage_is_named)
{
    const Damage damages[] = {
        {"no executable file", [](ToyFile& toy) { toy.bytes[0] = 'Z'; }},
        {"outside the file", [](ToyFile& toy) { toy.dos().File_Header.set(0xFFFFFFF0); }},
        {"no PE file", [](ToyFile& toy) { toy.file().Signature[0] = 'L'; }},
        {"not for 32-bit x86", [](ToyFile& toy) { toy.file().Machine.set(0x8664); }},
        {"stripped",
         [](ToyFile& toy) {
             toy.file().Characteristics.set(toy.file().Characteristics.get() | file_relocations_stripped);
         }},
        {"not a 32-bit image", [](ToyFile& toy) { toy.optional().Magic.set(0x20B); }},
        {"subsystem", [](ToyFile& toy) { toy.optional().Subsystem.set(2); }},
        {"too many directories", [](ToyFile& toy) { toy.optional().Directory_Count.set(0x10000000); }},
        {"too short for its directories", [](ToyFile& toy) { toy.file().Optional_Header_Bytes.set(96); }},
        {"size in memory", [](ToyFile& toy) { toy.optional().Image_Bytes.set(0x7FFFF000); }},
        {"alignment", [](ToyFile& toy) { toy.optional().Section_Alignment.set(0); }},
        {"number of sections", [](ToyFile& toy) { toy.file().Section_Count.set(0xFFFF); }},
        {"section table", [](ToyFile& toy) { toy.file().Section_Count.set(90); }},
        {"headers are longer", [](ToyFile& toy) { toy.optional().Header_Bytes.set(0x7FFF); }},
        {"a section lies outside the file",
         [](ToyFile& toy) { toy.section(".text").File_Offset.set(0xFFFFFF00); }},
        {"a section lies outside the image",
         [](ToyFile& toy) { toy.section(".reloc").Memory_Bytes.set(0xFFFFF000); }},
        {"overlap",
         [](ToyFile& toy) { toy.section(".data").Address.set(toy.section(".text").Address.get()); }},
        {"overlap", [](ToyFile& toy) { toy.section(".text").Address.set(0); }},
        {"not aligned",
         [](ToyFile& toy) { toy.section(".reloc").Address.set(toy.section(".reloc").Address.get() + 16); }},
        {"entry point", [](ToyFile& toy) { toy.optional().Entry_Point.set(0); }},
        {"entry point",
         [](ToyFile& toy) { toy.optional().Entry_Point.set(toy.section(".data").Address.get()); }},
        {"thread storage", [](ToyFile& toy) { toy.directory(directory_thread_storage).Bytes.set(24); }},
        {"relocations lie outside",
         [](ToyFile& toy) { toy.directory(directory_relocation).Address.set(~0u); }},
        {"bad length", [](ToyFile& toy) { toy.first_relocations().Bytes.set(0); }},
        {"bad length", [](ToyFile& toy) { toy.first_relocations().Bytes.set(0xFFFFFFFE); }},
        {"relocation lies outside", [](ToyFile& toy) { toy.first_relocations().Page.set(0xFFFFF000); }},
        {"unknown type", [](ToyFile& toy) { (&toy.first_relocations())[1].Page.set(0xA000A000); }},
        {"import table lies outside",
         [](ToyFile& toy) { toy.directory(directory_import).Address.set(0xFFFFFFFC); }},
        {"list of imports lies outside", [](ToyFile& toy) { toy.first_import().Names.set(0x7FFFFFFC); }},
        {"by number",
         [](ToyFile& toy) {
             toy.at<Le32>(toy.offset_of(".idata", toy.first_import().Names.get())).set(0x80000007);
         }},
        {"routine's name lies outside",
         [](ToyFile& toy) {
             toy.at<Le32>(toy.offset_of(".idata", toy.first_import().Names.get())).set(0x7FFFFFFF);
         }},
        {"module's name is no name", [](ToyFile& toy) { toy.first_import().Module_Name.set(0x3C); }},
        {"import slot", [](ToyFile& toy) { toy.first_import().Slots.set(0); }},
        {"checksum", [](ToyFile& toy) {
             toy = ToyFile();
             toy.bytes.back() ^= 0x10;
         }}};
    for (const Damage& damage : damages) {
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
                                  intact.section(".reloc").File_Offset.get()};
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
