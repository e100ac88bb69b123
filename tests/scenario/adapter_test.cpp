// SPDX-License-Identifier: MIT
// The adapter: what the port driver is told, how it comes up, and the dispatch hook.
#include <gtest/gtest.h>

#include "tests/scenario/dispatch_tap.h"
#include "tests/scenario/traffic.h"

namespace scenario {
namespace {

constexpr ULONG no_time_out = 0xFFFFFFFF;

TEST(Adapter, Configuration_is_one_bus_with_one_target_and_four_units)
{
    Rig rig;
    rig.run([&] {
        const PORT_CONFIGURATION_INFORMATION& told = rig.scsi().configuration();
        EXPECT_EQ(told.AdapterInterfaceType, PCIBus);
        EXPECT_EQ(told.MaximumTransferLength, 65536u);
        EXPECT_EQ(told.NumberOfPhysicalBreaks, 0xFFFFFFFFu);
        EXPECT_EQ(told.AlignmentMask, 3u);
        EXPECT_EQ(told.NumberOfBuses, 1);
        EXPECT_TRUE(told.ScatterGather && told.Master && told.CachesData && told.Dma32BitAddresses);
        EXPECT_EQ(told.Dma64BitAddresses, SCSI_DMA64_MINIPORT_SUPPORTED);
        EXPECT_FALSE(told.RealModeInitialized || told.BufferAccessScsiPortControlled);
        EXPECT_EQ(told.MaximumNumberOfTargets, 1);
        EXPECT_EQ(told.MaximumNumberOfLogicalUnits, 4);
        EXPECT_EQ(told.NumberOfAccessRanges, 0u);
        EXPECT_TRUE(told.MapBuffers && told.TaggedQueuing && told.AutoRequestSense);
        EXPECT_TRUE(told.MultipleRequestPerLu);
        EXPECT_FALSE(told.NeedPhysicalAddresses || told.ReceiveEvent);
        EXPECT_EQ(told.SpecificLuExtensionSize, 0u);
        EXPECT_EQ(told.SrbExtensionSize, 100u);
        EXPECT_EQ(told.BusInterruptLevel, 0u);
    });
}

TEST(Adapter, Largest_transfer_is_the_setting_when_it_is_1_to_64_KB)
{
    for (auto [kb, bytes] :
         {std::pair{16u, 16384u}, {1u, 1024u}, {64u, 65536u}, {65u, 65536u}, {0u, 65536u}}) {
        Rig rig({.settings = {{"TRANS_SIZE", kb}}});
        rig.run([&] {
            EXPECT_EQ(rig.scsi().maximum_transfer_bytes(), bytes);
            Bytes data = pattern(3, 20480);
            EXPECT_TRUE(rig.write(0, 3, data));
            Bytes back(data.size());
            EXPECT_TRUE(rig.read(0, 3, back));
            EXPECT_EQ(back, data);
        });
    }
}

TEST(Adapter, Second_search_finds_nothing_and_leaves_the_adapter_at_work)
{
    Rig rig;
    rig.run([&] {
        EXPECT_EQ(rig.scsi().search_adapter_again(), static_cast<unsigned>(SP_RETURN_NOT_FOUND));
        Bytes data(4096);
        EXPECT_TRUE(rig.read(0, 0, data));
        EXPECT_TRUE(rig.write(0, 0, data));
    });
    EXPECT_EQ(rig.log_count("\nQRN SCSI: HwFindAdapter "), 2u);
    EXPECT_EQ(rig.log_count("\nQRN SCSI: HwInitialize "), 1u);
}

TEST(Adapter, Controller_is_found_behind_another_device_of_the_driver)
{
    Rig rig;
    DispatchTap tap(rig);
    PDEVICE_OBJECT disk = nullptr;
    tap.before_initialize = [&](PDRIVER_OBJECT driver) {
        ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &disk), STATUS_SUCCESS);
        ASSERT_EQ(driver->DeviceObject, disk);
        disk->StackSize = 7;
    };
    rig.run([&] {
        Bytes data(512);
        EXPECT_TRUE(rig.read(0, 0, data));
        ASSERT_FALSE(tap.notices(true).empty());
        EXPECT_EQ(tap.notices(true).front().irp->StackCount, 1);
    });
    std::string text = rig.machine.log().text();
    EXPECT_NE(text.find("Enum Device Type 7\nQRN SCSI: Enum Device Type 4"), std::string::npos) << text;
    EXPECT_FALSE(rig.logged("Not Found FILE_DEVICE_CONTROLLER"));
}

TEST(Adapter, Without_a_controller_device_or_an_IRP_for_the_channel_it_does_not_start)
{
    for (bool controller : {false, true}) {
        Rig rig;
        DispatchTap tap(rig);
        if (controller)
            rig.machine.faults().fail(machine::Operation::irp_allocate, "IoAllocateIrp");
        else
            tap.before_initialize = [](PDRIVER_OBJECT driver) {
                driver->DeviceObject->DeviceType = FILE_DEVICE_DISK;
            };
        rig.run([&] {
            EXPECT_FALSE(rig.scsi().adapter_started());
            EXPECT_TRUE(rig.scsi().luns().empty());
        });
        EXPECT_EQ(rig.printed(" NULL"), 1u);
        EXPECT_EQ(rig.log_count("Not Found FILE_DEVICE_CONTROLLER"), controller ? 0u : 1u);
        EXPECT_EQ(rig.machine.log().text().find(
                      "\nQRN SCSI: Enum Device Type 7\nQRN SCSI: Not Found FILE_DEVICE_CONTROLLER NULL") ==
                      std::string::npos,
                  controller);
    }
}

TEST(Adapter, Bus_reset_succeeds_and_completes_nothing)
{
    Rig rig;
    rig.run([&] {
        rig.main.stop();
        Pending read(rig);
        read.read(0, 0, 4096);
        rig.machine.sleep_ms(5);
        EXPECT_TRUE(rig.scsi().reset_bus());
        rig.machine.sleep_ms(5);
        EXPECT_FALSE(read.done());
        EXPECT_EQ(rig.scsi().in_flight(), 1u);
        rig.main.start();
        rig.machine.sleep_ms(5000);
        EXPECT_TRUE(read.ok());
    });
    EXPECT_EQ(rig.printed("\nQRN SCSI: HwResetBus"), 1u);
}

TEST(Adapter, Hook_takes_every_time_out_from_the_port_driver_but_keeps_zero)
{
    Rig rig;
    DispatchTap tap(rig);
    rig.run([&] {
        for (auto [wanted, expected] : {std::pair<ULONG, ULONG>{10, no_time_out},
                                        {1, no_time_out},
                                        {0, 0},
                                        {0x7FFFFFFF, no_time_out},
                                        {no_time_out, no_time_out}}) {
            machine::ScsiRequest request(rig.scsi());
            request.timeout_seconds = wanted;
            rig.execute(request);
            EXPECT_TRUE(request.ok());
            EXPECT_EQ(tap.seen().back().srb.TimeOutValue, expected) << wanted;
        }
    });
}

TEST(Adapter, Hook_touches_only_what_is_certainly_an_SRB)
{
    constexpr USHORT srb_length = sizeof(SCSI_REQUEST_BLOCK);
    struct Row {
        ULONG control_code;
        USHORT length;  // of what the first argument points to
        bool is_srb;
    };
    const Row rows[] = {{0, srb_length, true},
                        {IOCTL_SCSI_EXECUTE_IN, srb_length, true},
                        {IOCTL_SCSI_EXECUTE_OUT, srb_length, true},
                        {IOCTL_SCSI_EXECUTE_NONE, srb_length, true},
                        {0, srb_length - 1, false},
                        {IOCTL_SCSI_EXECUTE_IN, 0, false},
                        {IOCTL_SCSI_MINIPORT, srb_length, false},
                        {0x00220003, srb_length, false}};
    Rig rig;
    DispatchTap tap(rig);
    rig.run([&] {
        for (const Row& row : rows) {
            SCSI_REQUEST_BLOCK argument{};
            argument.Length = row.length;
            argument.TimeOutValue = 10;
            tap.send_foreign(row.control_code, &argument);
            EXPECT_EQ(argument.TimeOutValue, row.is_srb ? no_time_out : 10u)
                << std::hex << row.control_code << " " << row.length;
        }
        tap.send_foreign(IOCTL_SCSI_EXECUTE_IN, nullptr);
        tap.send_foreign(0x00220003, reinterpret_cast<PVOID>(5));  // no address at all
    });
}

}  // namespace
}  // namespace scenario
