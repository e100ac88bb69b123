// SPDX-License-Identifier: MIT
// Devices that are opened by name, and what they are told of it.
#include <string>

#include "tests/machine/test_driver.h"

namespace machine::test {
namespace {

// How a device is opened, as the driver does it unless told otherwise.
struct Open {
    const wchar_t* name = L"\\Device\\Test";
    ACCESS_MASK access = SYNCHRONIZE;
    ULONG options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    ULONG attributes = 0;
    ULONG disposition = FILE_OPEN;

    NTSTATUS operator()(HANDLE& handle) const
    {
        UNICODE_STRING wide = counted(name);
        OBJECT_ATTRIBUTES object;
        InitializeObjectAttributes(&object, &wide, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK block;
        return ZwCreateFile(&handle, access, &object, &block, nullptr, attributes, share, disposition,
                            options, nullptr, 0);
    }
};

PFILE_OBJECT file_of(HANDLE handle)
{
    PVOID file = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &file, nullptr),
              STATUS_SUCCESS);
    return static_cast<PFILE_OBJECT>(file);
}

// A device that writes down what it is told of its files.
struct Told {
    std::string log = {};
    PFILE_OBJECT file = nullptr;
    std::u16string rest = {};
    ULONG access = 0, options = 0, share = 0;
    NTSTATUS answer = STATUS_SUCCESS;
    Ticks latency = 0;
    TestDriver driver{[this](PDEVICE_OBJECT, PIRP irp) { return note(irp); }};

    NTSTATUS note(PIRP irp)
    {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        const bool create = location.MajorFunction == IRP_MJ_CREATE;
        if (create) {
            file = location.FileObject;
            rest.assign(reinterpret_cast<const char16_t*>(file->FileName.Buffer), file->FileName.Length / 2u);
            access = location.Parameters.Create.SecurityContext->DesiredAccess;
            options = location.Parameters.Create.Options;
            share = location.Parameters.Create.ShareAccess;
        }
        EXPECT_EQ(location.FileObject, file);
        log += create                                     ? "create "
               : location.MajorFunction == IRP_MJ_CLEANUP ? "cleanup "
               : location.MajorFunction == IRP_MJ_CLOSE   ? "close "
                                                          : "other ";
        const NTSTATUS status = create ? answer : STATUS_SUCCESS;
        if (latency == 0)
            return complete(irp, status);
        IoMarkIrpPending(irp);
        Scheduler& scheduler = Machine::current().scheduler();
        scheduler.call_at(scheduler.now() + latency, [=] { complete(irp, status); });
        return STATUS_PENDING;
    }
};

TEST(File, Create_cleanup_and_close_come_in_order)
{
    for (const Ticks latency : {Ticks{0}, ticks_per_ms})
        in_machine([=](Machine&) {
            Told told{.latency = latency};
            HANDLE handle;
            ASSERT_EQ(Open()(handle), STATUS_SUCCESS);
            EXPECT_EQ(told.log, "create ");
            EXPECT_EQ(told.access, ACCESS_MASK{SYNCHRONIZE});
            EXPECT_EQ(told.options, ULONG{FILE_OPEN << 24 | 0x21});
            EXPECT_EQ(told.share, 3u);
            PFILE_OBJECT file = file_of(handle);
            EXPECT_EQ(file, told.file);
            EXPECT_TRUE(file->Flags & FO_DIRECT_DEVICE_OPEN);
            ZwClose(handle);
            EXPECT_EQ(told.log, "create cleanup ") << "a reference is left";
            ObDereferenceObject(file);
            EXPECT_EQ(told.log, "create cleanup close ");

            told.log.clear();
            UNICODE_STRING name = counted(L"\\Device\\Test");
            PDEVICE_OBJECT device;
            ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device), STATUS_SUCCESS);
            EXPECT_EQ(device, told.driver.device());
            EXPECT_FALSE(file->Flags & FO_DIRECT_DEVICE_OPEN);
            EXPECT_EQ(told.log, "create cleanup ") << "there is a pointer, and no handle";
            ObDereferenceObject(file);
            EXPECT_EQ(told.log, "create cleanup close ");
            EXPECT_EQ(told.driver.device()->ReferenceCount, 0);
        });
}

TEST(File, A_device_that_refuses_hears_no_more_of_the_file)
{
    for (const Ticks latency : {Ticks{0}, ticks_per_ms})
        in_machine([=](Machine&) {
            Told told{.answer = STATUS_SHARING_VIOLATION, .latency = latency};
            HANDLE handle;
            EXPECT_EQ(Open()(handle), STATUS_SHARING_VIOLATION);
            EXPECT_EQ(told.log, "create ");
            EXPECT_EQ(told.driver.device()->ReferenceCount, 0);
        });
}

TEST(File, What_follows_the_name_is_the_devices_to_understand)
{
    in_machine([](Machine&) {
        Told told;
        UNICODE_STRING link = counted(L"\\DosDevices\\Link"), target = counted(L"\\Device\\Test");
        ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
        const struct {
            const wchar_t* name;
            NTSTATUS status;
            std::u16string rest = {};
        } cases[] = {
            {L"\\device\\test", STATUS_SUCCESS},
            {L"\\Device\\Test\\", STATUS_SUCCESS, u"\\"},
            {L"\\??\\Link\\Some\\File", STATUS_SUCCESS, u"\\Some\\File"},
            {L"\\Device\\Test2", STATUS_OBJECT_NAME_NOT_FOUND},
            {L"\\Device", STATUS_OBJECT_NAME_NOT_FOUND},
            {L"\\", STATUS_OBJECT_NAME_NOT_FOUND},
        };
        for (const auto& expected : cases) {
            HANDLE handle;
            ASSERT_EQ(Open{.name = expected.name}(handle), expected.status);
            if (!NT_SUCCESS(expected.status))
                continue;
            EXPECT_TRUE(told.rest == expected.rest);
            EXPECT_EQ((told.file->Flags & FO_DIRECT_DEVICE_OPEN) != 0, expected.rest.empty());
            ZwClose(handle);
        }
    });
}

TEST(File, Wishes_that_contradict_themselves_are_refused)
{
    in_machine([](Machine&) {
        Told told;
        const struct {
            Open open;
            NTSTATUS status;
        } cases[] = {
            {{.access = FILE_READ_DATA}, STATUS_INVALID_PARAMETER},  // nobody could wait
            {{.options = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT}, STATUS_INVALID_PARAMETER},
            {{.options = FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE}, STATUS_INVALID_PARAMETER},
            {{.options = FILE_DELETE_ON_CLOSE}, STATUS_INVALID_PARAMETER},
            {{.access = FILE_APPEND_DATA, .options = FILE_NO_INTERMEDIATE_BUFFERING},
             STATUS_INVALID_PARAMETER},
            {{.options = 0x01000000}, STATUS_INVALID_PARAMETER},
            {{.share = 8}, STATUS_INVALID_PARAMETER},
            {{.attributes = 8}, STATUS_INVALID_PARAMETER},
            {{.disposition = FILE_MAXIMUM_DISPOSITION + 1}, STATUS_INVALID_PARAMETER},
            {{.access = SYNCHRONIZE | 0x00200000}, STATUS_ACCESS_DENIED},
            {{.disposition = FILE_OVERWRITE}, STATUS_ACCESS_DENIED},
        };
        for (const auto& refused : cases) {
            HANDLE handle;
            EXPECT_EQ(refused.open(handle), refused.status) << &refused - cases;
        }
        EXPECT_EQ(told.log, "") << "no device hears of it";

        HANDLE first, second;
        told.driver.device()->Flags |= DO_EXCLUSIVE;
        EXPECT_EQ(Open()(first), STATUS_SUCCESS);
        EXPECT_EQ(Open()(second), STATUS_ACCESS_DENIED);
        ZwClose(first);
        told.driver.device()->Flags |= DO_DEVICE_INITIALIZING;
        EXPECT_EQ(Open()(second), STATUS_NO_SUCH_DEVICE);
    });
}

TEST(File, The_end_of_a_file_belongs_to_passive_level)
{
    expect_breaks({{"last reference",
                    [](Machine&) {
                        Told told;
                        HANDLE handle;
                        Open()(handle);
                        PFILE_OBJECT file = file_of(handle);
                        ZwClose(handle);
                        KeRaiseIrqlToDpcLevel();
                        ObDereferenceObject(file);
                    },
                    "the last reference to a file is given back at IRQL 2"}});
}

}  // namespace
}  // namespace machine::test
