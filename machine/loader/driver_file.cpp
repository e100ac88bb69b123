// SPDX-License-Identifier: MIT
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "machine/loader/driver_image.h"
#include "machine/loader/kernel_exports.h"
#include "machine/loader/pe_image.h"

namespace machine {
namespace {

constexpr std::uintmax_t file_bytes_max = 16u << 20;

std::vector<std::uint8_t> read_file(const std::string& path)
{
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(path, error);
    if (error)
        throw std::runtime_error(error.message());
    if (bytes > file_bytes_max)
        throw std::runtime_error("too large for a driver");
    std::vector<std::uint8_t> contents(static_cast<std::size_t>(bytes));
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
    if (!file)
        throw std::runtime_error("cannot be read");
    return contents;
}

// The addresses of everything the image imports, in its order; all that is missing in one message.
std::vector<void*> bind_imports(const PeImage& image)
{
    std::vector<void*> addresses;
    std::string missing;
    for (const PeImport& import : image.imports) {
        void* const address = kernel_export(import.module, import.routine);
        if (!address)
            missing += (missing.empty() ? "" : ", ") + import.module + "!" + import.routine;
        addresses.push_back(address);
    }
    if (!missing.empty())
        throw std::runtime_error("it imports what this machine does not have: " + missing);
    return addresses;
}

void store_dword(std::uint8_t* place, std::uint32_t value)
{
    std::memcpy(place, &value, sizeof value);
}

class DriverFile : public DriverImage {
public:
    explicit DriverFile(std::string path) : path_(std::move(path))
    {
        try {
            image_ = parse_pe_image(read_file(path_));
            imports_ = bind_imports(image_);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(path_ + ": " + error.what());
        }
    }

    // Maps a fresh copy. The one before stays: threads that its machine dropped may stand in it.
    Entry load() override
    {
        void* const mapped = mmap(nullptr, image_.layout.size(), PROT_READ | PROT_WRITE | PROT_EXEC,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED)
            throw std::runtime_error(path_ + ": no memory to load it: " + std::strerror(errno));
        auto* const base = static_cast<std::uint8_t*>(mapped);
        std::memcpy(base, image_.layout.data(), image_.layout.size());

        const std::uint32_t moved =
            static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(base)) - image_.preferred_base;
        for (const std::uint32_t place : image_.relocations) {
            std::uint32_t address;
            std::memcpy(&address, base + place, sizeof address);
            store_dword(base + place, address + moved);
        }
        for (std::size_t i = 0; i < imports_.size(); ++i)
            store_dword(base + image_.imports[i].slot,
                        static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(imports_[i])));
        base_ = base;
        return reinterpret_cast<Entry>(base + image_.entry);
    }

    std::string name() const override { return path_; }

    void* exported(const std::string& name) const override
    {
        const auto found = std::ranges::find(image_.exports, name, &PeExport::name);
        return base_ && found != image_.exports.end() ? base_ + found->address : nullptr;
    }

private:
    const std::string path_;
    PeImage image_;
    std::vector<void*> imports_;
    std::uint8_t* base_ = nullptr;  // of the last copy
};

}  // namespace

std::unique_ptr<DriverImage> driver_file(const std::string& path)
{
    return std::make_unique<DriverFile>(path);
}

}  // namespace machine
