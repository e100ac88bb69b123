// SPDX-License-Identifier: MIT
// Driver files for the loader: what is taken lies within its image, and what is rejected leaves no mapping.
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "fuzz/input.h"
#include "machine/loader/driver_image.h"
#include "machine/loader/kernel_exports.h"
#include "machine/loader/pe_image.h"

using namespace fuzz;

namespace {

struct Mapping {
    void* base = nullptr;
    std::size_t bytes = 0;
} mapping;

std::string file_path(std::span<const std::uint8_t> bytes)
{
    static const int file = memfd_create("fuzz", 0);
    require(ftruncate(file, 0) == 0 && pwrite(file, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()),
            "the file takes its content");
    return "/proc/self/fd/" + std::to_string(file);
}

void check_image(const machine::PeImage& image)
{
    const auto holds = [&](std::uint64_t at, std::uint64_t bytes) {
        return at + bytes <= image.layout.size();
    };
    require(holds(image.entry, 1), "the entry point is in the image");
    for (const std::uint32_t place : image.relocations)
        require(holds(place, 4), "a relocation is in the image");
    for (const auto& import : image.imports)
        require(holds(import.slot, 4), "an import slot is in the image");
    for (const auto& exported : image.exports)
        require(holds(exported.address, 1), "an export is in the image");
}

void check_loaded(const machine::PeImage& image, machine::DriverImage& driver)
{
    const auto* entry = reinterpret_cast<const std::uint8_t*>(driver.load());
    require(mapping.base && mapping.bytes == image.layout.size(), "a load maps the image once");
    const auto* base = static_cast<const std::uint8_t*>(mapping.base);
    require(entry == base + image.entry, "the entry point is the image's");
    for (const auto& exported : image.exports)
        require(driver.exported(exported.name) >= base &&
                    driver.exported(exported.name) < base + image.layout.size(),
                "an export is in the mapping");
    munmap(mapping.base, mapping.bytes);
    mapping = {};
}

}  // namespace

// All mappings of the loader go through here.
extern "C" void* __real_mmap64(void*, std::size_t, int, int, int, off_t);
extern "C" void* __wrap_mmap64(void* wish, std::size_t bytes, int protection, int flags, int file,
                               off_t offset)
{
    void* const base = __real_mmap64(wish, bytes, protection, flags, file, offset);
    if (protection & PROT_EXEC)
        mapping = {base, bytes};
    return base;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    machine::PeImage image;
    bool parsed = false;
    try {
        image = machine::parse_pe_image({data, size});
        parsed = true;
        check_image(image);
    } catch (const std::runtime_error&) {
    }
    try {
        const auto driver = machine::driver_file(file_path({data, size}));
        require(parsed, "the loader takes nothing that is no image");
        check_loaded(image, *driver);
    } catch (const std::runtime_error&) {
        require(!mapping.base, "what is rejected leaves no mapping");
        const auto is_there = [](const auto& import) {
            return machine::kernel_export(import.module, import.routine);
        };
        require(!parsed || !std::ranges::all_of(image.imports, is_there),
                "an image whose imports are all there is loaded");
    }
    return 0;
}
