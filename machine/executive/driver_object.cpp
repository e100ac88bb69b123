// SPDX-License-Identifier: MIT
#include "machine/executive/driver_object.h"

#include <algorithm>

#include "machine/executive/checks.h"

namespace machine {
namespace {

constexpr CSHORT driver_type = 4;

NTSTATUS NTAPI refuse_request(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

UNICODE_STRING counted(const std::u16string& text, std::unique_ptr<WCHAR[]>& buffer)
{
    buffer = std::make_unique<WCHAR[]>(text.size());
    std::ranges::copy(text, buffer.get());
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {.Length = bytes, .MaximumLength = bytes, .Buffer = buffer.get()};
}

}  // namespace

DriverObject::DriverObject(const std::u16string& name, const std::u16string& service_key,
                           PDRIVER_INITIALIZE entry)
{
    object.Type = driver_type;
    object.Size = sizeof object;
    object.DriverExtension = &extension_;
    object.DriverName = counted(u"\\Driver\\" + name, name_);
    object.DriverInit = entry;
    std::ranges::fill(object.MajorFunction, refuse_request);
    extension_.DriverObject = &object;
    extension_.ServiceKeyName = counted(name, service_name_);
    registry_string_ = counted(service_key, registry_path_);
}

NTSTATUS DriverObject::initialize()
{
    const Thread& thread = enter_at_most(PASSIVE_LEVEL, "DriverEntry");
    const NTSTATUS status = object.DriverInit(&object, &registry_string_);
    if (thread.irql != PASSIVE_LEVEL)
        violation("DriverEntry returned at IRQL " + std::to_string(thread.irql));
    return status;
}

}  // namespace machine
