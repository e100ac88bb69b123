// SPDX-License-Identifier: MIT
// Device objects and symbolic links.
#include <nt.h>

#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/wide_text.h"

using namespace machine;

namespace {

constexpr ULONG device_tag = pool_tag("Devi");
constexpr CSHORT device_type = 3;

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

}  // namespace

namespace machine {

void free_device_when_unused(PDEVICE_OBJECT device)
{
    if (!device->DriverObject && device->ReferenceCount == 0)
        executive().system.free(device, device_tag);
}

}  // namespace machine

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

VOID NTAPI IoRegisterBootDriverReinitialization(PDRIVER_OBJECT driver, PDRIVER_REINITIALIZE routine,
                                                PVOID context)
{
    enter_at_most(PASSIVE_LEVEL, "IoRegisterBootDriverReinitialization");
    ExecutiveState& kernel = executive();
    std::lock_guard guard(kernel.reinitializations_lock);
    kernel.reinitializations.push_back({driver, routine, context});
}

}  // extern "C"
