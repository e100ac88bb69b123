// SPDX-License-Identifier: MIT
// What a disk image leaves in the driver's tables.
#include <cstring>

#include "driver/startup/driver_entry.h"
#include "driver/startup/image_search.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"
#include "tests/driver/driver_test.h"

namespace {

TEST(Start, Image_makes_LUN_0_with_16_KB_packets_split_writes_and_no_retry_budget)
{
    const std::uint8_t descriptor[] = {0xE9, 13, 0, 0x90, 'Q', 'R', 'N', 'H', 0x44, 0x10, 0, 0};
    std::vector<std::uint8_t> sector(512);
    for (std::size_t i = 0; i < sector.size(); ++i)
        sector[i] = static_cast<std::uint8_t>(i);
    DriverPiece driver;
    driver.machine.memory().write(0x96000, descriptor);
    driver.machine.memory().write(0x96010, sector);
    auto image = machine::builtin_driver();
    driver.run([&] { EXPECT_EQ(driver.machine.boot(*image), STATUS_SUCCESS); });
    ASSERT_NE(pSaved_MBR, nullptr);
    EXPECT_EQ(std::memcmp(pSaved_MBR, sector.data(), sector.size()), 0);
    const formats::Disk_Info& disk = Boot_Param.Disks[0];
    EXPECT_EQ(disk.Disk_Secs.get(), 0xC9C8C7C6u + 0xCDCCCBCAu + 1);
    EXPECT_EQ(disk.Read_KB, 16);
    EXPECT_EQ(disk.Write_KB, 16);
    EXPECT_EQ(disk.Disk_Flags, 0x24);
    EXPECT_EQ(disk.Retry_Mins, 0);
    EXPECT_EQ(Start_Event.Header.SignalState, 1);
}

TEST(Start, Image_takes_nothing_over_from_a_boot_block_without_LUNs)
{
    const std::uint8_t descriptor[] = {0xE9, 13, 0, 0x90, 'Q', 'R', 'N', 'H', 0x44, 0x10, 0, 0};
    DriverPiece driver;
    driver.machine.memory().write(0x96000, descriptor);
    driver.run([&] {
        KeInitializeEvent(&Start_Event, NotificationEvent, FALSE);
        std::memset(&Boot_Param.Disks[0], 0xEE, sizeof Boot_Param.Disks[0]);
        Find_HDD_Image();
        const formats::Disk_Info& disk = Boot_Param.Disks[0];
        EXPECT_EQ(disk.Disk_Flags, 0x24);
        EXPECT_EQ(disk.Retry_Mins, 0);
    });
}

}  // namespace
