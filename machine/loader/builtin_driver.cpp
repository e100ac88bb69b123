// SPDX-License-Identifier: MIT
// The driver that is linked into the program. All its data lies between two symbols of the linker
// script beside this file, so that a load can put it back into the state in which the program began.
#include <cstring>
#include <vector>

#include "machine/loader/driver_image.h"

extern "C" {
NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path);
extern std::uint8_t qrn_driver_data_begin[];
extern std::uint8_t qrn_driver_data_end[];
// All that a driver may export.
extern std::uint8_t QRN_Cache_Stats[] __attribute__((weak));
extern std::uint8_t QRN_Sync_Stats[] __attribute__((weak));
}

namespace machine {
namespace {

// Copies byte by byte behind the address sanitizer's back: between the driver's variables lie its
// guard zones, which move along with them.
void copy_data(void* to, const void* from, std::size_t bytes)
{
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(bytes) : : "memory");
}

class BuiltinDriver : public DriverImage {
public:
    Entry load() override
    {
        const auto bytes = static_cast<std::size_t>(qrn_driver_data_end - qrn_driver_data_begin);
        static const std::vector<std::uint8_t> initial = [bytes] {
            std::vector<std::uint8_t> data(bytes);
            copy_data(data.data(), qrn_driver_data_begin, bytes);
            return data;
        }();
        copy_data(qrn_driver_data_begin, initial.data(), bytes);
        loaded_ = true;
        return DriverEntry;
    }

    std::string name() const override { return "builtin"; }

    void* exported(const std::string& name) const override
    {
        if (!loaded_)
            return nullptr;
        return name == "QRN_Cache_Stats"  ? QRN_Cache_Stats
               : name == "QRN_Sync_Stats" ? QRN_Sync_Stats
                                          : nullptr;
    }

private:
    bool loaded_ = false;
};

}  // namespace

std::unique_ptr<DriverImage> builtin_driver()
{
    return std::make_unique<BuiltinDriver>();
}

std::unique_ptr<DriverImage> driver_named(const std::string& name_or_path)
{
    if (name_or_path == "builtin")
        return builtin_driver();
    return driver_file(name_or_path);
}

}  // namespace machine
