// SPDX-License-Identifier: MIT
// Device objects, symbolic links, and opening a device by name.
#include <nt.h>

#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/wide_text.h"

using namespace machine;

namespace {

constexpr ULONG device_tag = pool_tag("Devi"), file_tag = pool_tag("File");
constexpr CSHORT device_type = 3, file_type = 5;

void link_to_driver(PDRIVER_OBJECT driver, PDEVICE_OBJECT device)
{
    device->DriverObject = driver;
    device->NextDevice = driver->DeviceObject;
    driver->DeviceObject = device;
}

void unlink_from_driver(PDEVICE_OBJECT device)
{
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link && *link != device)
        link = &(*link)->NextDevice;
    if (!*link)
        violation("IoDeleteDevice: the device does not belong to its driver");
    *link = device->NextDevice;
    device->DriverObject = nullptr;
}

// A device goes when it was deleted and nobody has it open.
void free_device_when_unused(PDEVICE_OBJECT device)
{
    if (!device->DriverObject && device->ReferenceCount == 0)
        executive().system.free(device, device_tag);
}

void close_file(PFILE_OBJECT file)
{
    PDEVICE_OBJECT device = file->DeviceObject;
    executive().system.free(file, file_tag);
    --device->ReferenceCount;
    free_device_when_unused(device);
}

PFILE_OBJECT open_file(PDEVICE_OBJECT device)
{
    auto* file = static_cast<PFILE_OBJECT>(executive().system.allocate(sizeof(FILE_OBJECT), file_tag));
    std::memset(file, 0, sizeof *file);
    file->Type = file_type;
    file->Size = sizeof *file;
    file->DeviceObject = device;
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, TRUE);
    ++device->ReferenceCount;
    executive().objects.add(file, ObjectKind::file, [file] { close_file(file); });
    return file;
}

// A name is looked up from the root: the machine has no directory objects to start from.
NTSTATUS check_name(const OBJECT_ATTRIBUTES& attributes)
{
    const UNICODE_STRING* name = attributes.ObjectName;
    if (attributes.Length != sizeof attributes)
        return STATUS_INVALID_PARAMETER;
    if (attributes.RootDirectory)
        return STATUS_INVALID_HANDLE;
    if (!name || name->Length == 0 || name->Length % sizeof(WCHAR) != 0 || name->Buffer[0] != L'\\')
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    return STATUS_SUCCESS;
}

// A device is there or is not: it cannot be made by opening it, and a file of the synchronous kind must be
// opened with the right to wait for it.
NTSTATUS check_open(ACCESS_MASK access, ULONG disposition, ULONG options)
{
    const bool synchronous = options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
    if (disposition > FILE_MAXIMUM_DISPOSITION || (synchronous && !(access & SYNCHRONIZE)))
        return STATUS_INVALID_PARAMETER;
    if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF)
        return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT top_of_stack(PDEVICE_OBJECT device)
{
    while (device->AttachedDevice)
        device = device->AttachedDevice;
    return device;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT driver, ULONG extension_bytes, PUNICODE_STRING name,
                              DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive,
                              PDEVICE_OBJECT* result)
{
    enter_at_most(APC_LEVEL, "IoCreateDevice");
    ExecutiveState& kernel = executive();
    // The extension is aligned like any block of pool.
    const std::size_t header_bytes = (sizeof(DEVICE_OBJECT) + 7) & ~std::size_t{7};
    auto* device =
        static_cast<PDEVICE_OBJECT>(kernel.system.allocate(header_bytes + extension_bytes, device_tag));
    if (!device)
        return STATUS_INSUFFICIENT_RESOURCES;
    std::memset(device, 0, header_bytes + extension_bytes);
    if (name && !kernel.names.add_device(text_of(*name), device)) {
        kernel.system.free(device, device_tag);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    device->Type = device_type;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extension_bytes);
    device->Flags =
        DO_DEVICE_INITIALIZING | (name ? DO_DEVICE_HAS_NAME : 0u) | (exclusive ? DO_EXCLUSIVE : 0u);
    device->Characteristics = characteristics;
    device->DeviceType = type;
    device->StackSize = 1;
    if (extension_bytes)
        device->DeviceExtension = reinterpret_cast<UCHAR*>(device) + header_bytes;
    InitializeListHead(&device->Queue.ListEntry);
    link_to_driver(driver, device);
    *result = device;
    return STATUS_SUCCESS;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT device)
{
    enter_at_most(APC_LEVEL, "IoDeleteDevice");
    unlink_from_driver(device);
    executive().names.remove_device(device);
    free_device_when_unused(device);
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING link, PUNICODE_STRING device)
{
    enter_at_most(PASSIVE_LEVEL, "IoCreateSymbolicLink");
    ExecutiveState& kernel = executive();
    const std::u16string name = text_of(*link);
    if (kernel.faults.hit(Operation::symbolic_link, narrow(name)))
        return STATUS_INSUFFICIENT_RESOURCES;
    return kernel.names.add_link(name, text_of(*device)) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING name, ACCESS_MASK, PFILE_OBJECT* file,
                                        PDEVICE_OBJECT* device)
{
    enter_at_most(PASSIVE_LEVEL, "IoGetDeviceObjectPointer");
    ExecutiveState& kernel = executive();
    const std::u16string path = text_of(*name);
    if (kernel.faults.hit(Operation::device_open, narrow(path)))
        return STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT found = kernel.names.find_device(path);
    if (!found)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    *file = open_file(found);
    *device = top_of_stack(found);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                            PIO_STATUS_BLOCK status_block, PLARGE_INTEGER, ULONG, ULONG, ULONG disposition,
                            ULONG options, PVOID, ULONG)
{
    enter_at_most(PASSIVE_LEVEL, "ZwCreateFile");
    ExecutiveState& kernel = executive();
    NTSTATUS status = check_name(*attributes);
    if (NT_SUCCESS(status))
        status = check_open(access, disposition, options);
    if (!NT_SUCCESS(status))
        return status;
    const std::u16string path = text_of(*attributes->ObjectName);
    if (kernel.faults.hit(Operation::device_open, narrow(path)))
        return STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT found = kernel.names.find_device(path);
    if (!found)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    *handle = kernel.objects.open(open_file(found));
    status_block->Status = STATUS_SUCCESS;
    status_block->Information = FILE_OPENED;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT NTAPI IoGetRelatedDeviceObject(PFILE_OBJECT file)
{
    enter_at_most(DISPATCH_LEVEL, "IoGetRelatedDeviceObject");
    return top_of_stack(file->DeviceObject);
}

VOID NTAPI IoRegisterBootDriverReinitialization(PDRIVER_OBJECT driver, PDRIVER_REINITIALIZE routine,
                                                PVOID context)
{
    enter_at_most(PASSIVE_LEVEL, "IoRegisterBootDriverReinitialization");
    ExecutiveState& kernel = executive();
    std::lock_guard guard(kernel.reinitializations_lock);
    kernel.reinitializations.push_back({driver, routine, context});
}

}  // extern "C"
