#include "machine/executive/executive.h"
#include "tests/machine/test_driver.h"

namespace machine::test {
namespace {

NTSTATUS open(const wchar_t* name, PFILE_OBJECT* file, PDEVICE_OBJECT* device)
{
    UNICODE_STRING string = counted(name);
    return IoGetDeviceObjectPointer(&string, FILE_ALL_ACCESS, file, device);
}

NTSTATUS finish(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS);
}

TEST(Devices, A_device_opens_by_its_name_in_any_case_and_through_links_made_before_it)
{
    Machine machine;
    run_to_end(machine, [] {
        UNICODE_STRING link = counted(L"\\DosDevices\\PhysicalDrive0"),
                       target = counted(L"\\ArcName\\multi(0)"),
                       device_name = counted(L"\\Device\\Harddisk0");
        EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
        EXPECT_EQ(IoCreateSymbolicLink(&target, &device_name), STATUS_SUCCESS);
        EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(executive().names.link_target(u"\\arcname\\MULTI(0)"), u"\\Device\\Harddisk0");
        PFILE_OBJECT file = nullptr;
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(open(L"\\??\\physicaldrive0", &file, &device), STATUS_OBJECT_NAME_NOT_FOUND);

        TestDriver driver(finish, L"\\Device\\Harddisk0");
        for (const wchar_t* name :
             {L"\\device\\HARDDISK0", L"\\??\\physicaldrive0", L"\\ArcName\\multi(0)"}) {
            EXPECT_EQ(open(name, &file, &device), STATUS_SUCCESS);
            EXPECT_EQ(device, driver.device());
            EXPECT_EQ(file->DeviceObject, driver.device());
            EXPECT_EQ(device->ReferenceCount, 1);
            EXPECT_EQ(ObDereferenceObject(file), 0);
            EXPECT_EQ(device->ReferenceCount, 0);
        }
    });
}

TEST(Devices, Links_in_a_circle_lead_nowhere)
{
    Machine machine;
    run_to_end(machine, [] {
        UNICODE_STRING first = counted(L"\\??\\a"), second = counted(L"\\??\\b");
        IoCreateSymbolicLink(&first, &second);
        IoCreateSymbolicLink(&second, &first);
        PFILE_OBJECT file;
        PDEVICE_OBJECT device;
        EXPECT_EQ(open(L"\\??\\a", &file, &device), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST(Devices, Devices_stand_in_their_drivers_list_newest_first_and_names_are_unique)
{
    Machine machine;
    run_to_end(machine, [] {
        TestDriver driver(finish);
        PDEVICE_OBJECT second, taken = nullptr;
        EXPECT_EQ(IoCreateDevice(driver.driver(), 0, nullptr, FILE_DEVICE_CONTROLLER, 0, FALSE, &second),
                  STATUS_SUCCESS);
        EXPECT_EQ(driver.driver()->DeviceObject, second);
        EXPECT_EQ(second->NextDevice, driver.device());
        EXPECT_EQ(second->DeviceType, static_cast<ULONG>(FILE_DEVICE_CONTROLLER));
        EXPECT_EQ(second->DeviceExtension, nullptr);
        UNICODE_STRING name = counted(L"\\DEVICE\\test");
        EXPECT_EQ(IoCreateDevice(driver.driver(), 0, &name, FILE_DEVICE_CONTROLLER, 0, FALSE, &taken),
                  STATUS_OBJECT_NAME_COLLISION);
        IoDeleteDevice(driver.device());
        EXPECT_EQ(driver.driver()->DeviceObject, second);
        EXPECT_EQ(second->NextDevice, nullptr);
        EXPECT_EQ(IoCreateDevice(driver.driver(), 0, &name, FILE_DEVICE_CONTROLLER, 0, FALSE, &taken),
                  STATUS_SUCCESS);
    });
}

TEST(Devices, An_open_device_outlives_its_deletion)
{
    EXPECT_EQ(broken_rule([](Machine&) {
                  TestDriver driver(finish);
                  PFILE_OBJECT file;
                  PDEVICE_OBJECT device;
                  open(L"\\Device\\Test", &file, &device);
                  IoDeleteDevice(device);
                  EXPECT_EQ(device->ReferenceCount, 1);
                  EXPECT_EQ(device->DriverObject, nullptr);
                  ObDereferenceObject(file);
              }),
              "");
    EXPECT_BREAKS(
        [](Machine&) {
            TestDriver driver(finish);
            PFILE_OBJECT file;
            PDEVICE_OBJECT device;
            open(L"\\Device\\Test", &file, &device);
            ObDereferenceObject(file);
            ObDereferenceObject(file);
        },
        "one reference too many");
}

}  // namespace
}  // namespace machine::test
