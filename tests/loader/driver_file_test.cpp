// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <array>
#include <filesystem>

#include <nt.h>

#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "tests/loader/toy_file.h"

namespace {

// The message with which this file is refused.
std::string refusal(const std::string& path)
{
    try {
        machine::driver_file(path);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(accepted)";
}

class DriverFile : public testing::Test {
protected:
    ~DriverFile() override { std::filesystem::remove(path); }

    void write(const ToyFile& toy)
    {
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<const char*>(toy.bytes.data()),
                   static_cast<std::streamsize>(toy.bytes.size()));
    }

    const std::string path = testing::TempDir() + "toy_" + std::to_string(getpid()) + ".sys";
};

TEST_F(DriverFile, Runs_with_its_imports_bound_and_with_fresh_data_after_each_load)
{
    const auto driver = machine::driver_file(TOY_DRIVER);
    EXPECT_EQ(driver->name(), TOY_DRIVER);
    EXPECT_EQ(driver->exported("toy_calls"), nullptr) << "not loaded";
    for (const bool mm64bit : {false, true}) {
        machine::MachineConfig config;
        config.mm64bit = mm64bit;
        machine::Machine machine(config);
        const NTSTATUS found = mm64bit ? 0x300 : 0x100;
        machine.run([&] {
            const auto first = driver->load();
            const auto* const first_data = static_cast<ULONG*>(driver->exported("toy_calls"));
            ASSERT_TRUE(first_data);
            EXPECT_EQ(first(nullptr, nullptr), found + 2);
            EXPECT_EQ(first(nullptr, nullptr), found + 4);
            const auto second = driver->load();
            EXPECT_EQ(second(nullptr, nullptr), found + 2);
            EXPECT_EQ(first(nullptr, nullptr), found + 6) << "the copy before has gone";
            const auto* const second_data = static_cast<ULONG*>(driver->exported("toy_calls"));
            EXPECT_EQ((std::array{first_data[0], first_data[1], second_data[0], second_data[1]}),
                      (std::array<ULONG, 4>{17, 3, 17, 1}));
            EXPECT_EQ(driver->exported("initialised"), nullptr);
        });
        EXPECT_EQ(machine.log().count("\ntoy 8 two"), 2u);
    }
}

TEST_F(DriverFile, Everything_that_cannot_be_bound_is_named_in_one_message)
{
    ToyFile toy;
    toy.optional().Checksum.set(0);
    toy.replace("DbgPrint", "strtok_r");  // this program has it, the kernel has not
    toy.replace("HAL.dll", "BAD.SYS");
    write(toy);
    const std::string message = refusal(path);
    for (const char* part : {"toy_", "ntoskrnl.exe!strtok_r", "BAD.SYS!KfAcquireSpinLock"})
        EXPECT_NE(message.find(part), std::string::npos) << message;
    EXPECT_EQ(message.find("Mm64BitPhysicalAddress"), std::string::npos) << message;
}

}  // namespace
