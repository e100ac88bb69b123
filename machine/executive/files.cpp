// SPDX-License-Identifier: MIT
// Opening a device by name: the file object, and the requests that tell the device of its beginning and end.
// Who opens one sends create; the last handle that is closed sends cleanup, the last reference given back
// close.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/own_request.h"
#include "machine/executive/wide_text.h"

using namespace machine;

namespace {

constexpr ULONG file_tag = pool_tag("File"), name_tag = pool_tag("FNam");
constexpr CSHORT file_type = 5;
constexpr ULONG synchronous_options = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
// What can go together with the wish for a directory.
constexpr ULONG directory_options = FILE_DIRECTORY_FILE | synchronous_options | FILE_WRITE_THROUGH |
                                    FILE_OPEN_FOR_BACKUP_INTENT | FILE_DELETE_ON_CLOSE |
                                    FILE_OPEN_BY_FILE_ID | FILE_OPEN_REPARSE_POINT;
// Rights that exist, and those with which a device is opened as it is, past any file system.
constexpr ACCESS_MASK reserved_access = 0x0CE0FE00;
constexpr ACCESS_MASK direct_access =
    SYNCHRONIZE | FILE_READ_ATTRIBUTES | READ_CONTROL | WRITE_OWNER | WRITE_DAC | ACCESS_SYSTEM_SECURITY;

struct Wish {
    ACCESS_MASK access;
    ULONG attributes, share, disposition, options;
};

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

bool options_agree(const Wish& wish)
{
    const ULONG options = wish.options;
    if ((options & synchronous_options) == synchronous_options ||
        ((options & synchronous_options) && !(wish.access & SYNCHRONIZE)))
        return false;
    if ((options & FILE_DELETE_ON_CLOSE) && !(wish.access & DELETE))
        return false;
    if ((options & FILE_NO_INTERMEDIATE_BUFFERING) && (wish.access & FILE_APPEND_DATA))
        return false;
    return !(options & FILE_DIRECTORY_FILE) || !(options & ~directory_options);
}

// A device is there or is not: it cannot be made by opening it.
NTSTATUS check_wish(const Wish& wish)
{
    if (wish.disposition > FILE_MAXIMUM_DISPOSITION || (wish.options & ~FILE_VALID_OPTION_FLAGS) ||
        (wish.share & ~FILE_SHARE_VALID_FLAGS) || (wish.attributes & ~FILE_ATTRIBUTE_VALID_FLAGS) ||
        !options_agree(wish))
        return STATUS_INVALID_PARAMETER;
    if ((wish.access & reserved_access) ||
        (wish.disposition != FILE_OPEN && wish.disposition != FILE_OPEN_IF))
        return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT top_of_stack(PDEVICE_OBJECT device)
{
    while (device->AttachedDevice)
        device = device->AttachedDevice;
    return device;
}

IO_STACK_LOCATION request_of(UCHAR major)
{
    IO_STACK_LOCATION request{};
    request.MajorFunction = major;
    return request;
}

// Sends a request about the file and waits for its end.
NTSTATUS send(PFILE_OBJECT file, const IO_STACK_LOCATION& request)
{
    PDEVICE_OBJECT device = top_of_stack(file->DeviceObject);
    KEVENT event;
    IO_STATUS_BLOCK result;
    PIRP irp = new_own_request(device->StackSize, &event, &result);
    if (!irp)
        return STATUS_INSUFFICIENT_RESOURCES;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    irp->Tail.Overlay.OriginalFileObject = file;
    *IoGetNextIrpStackLocation(irp) = request;
    IoGetNextIrpStackLocation(irp)->FileObject = file;
    const NTSTATUS status = IofCallDriver(device, irp);
    if (status != STATUS_PENDING)
        return status;
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    return result.Status;
}

void free_file(PFILE_OBJECT file)
{
    PDEVICE_OBJECT device = file->DeviceObject;
    Pool& system = executive().system;
    if (file->FileName.Buffer)
        system.free(file->FileName.Buffer, name_tag);
    system.free(file, file_tag);
    --device->ReferenceCount;
    free_device_when_unused(device);
}

void tell_cleanup(PFILE_OBJECT file)
{
    send(file, request_of(IRP_MJ_CLEANUP));
    file->Flags |= FO_CLEANUP_COMPLETE;
}

void tell_close(PFILE_OBJECT file)
{
    enter_at_most(PASSIVE_LEVEL, "the last reference to a file is given back");
    send(file, request_of(IRP_MJ_CLOSE));
    free_file(file);
}

NTSTATUS tell_create(PFILE_OBJECT file, const Wish& wish)
{
    IO_SECURITY_CONTEXT security{};
    security.DesiredAccess = wish.access;
    security.FullCreateOptions = wish.options;
    IO_STACK_LOCATION request = request_of(IRP_MJ_CREATE);
    request.Parameters.Create.SecurityContext = &security;
    request.Parameters.Create.Options = wish.disposition << 24 | wish.options;
    request.Parameters.Create.FileAttributes = static_cast<USHORT>(wish.attributes);
    request.Parameters.Create.ShareAccess = static_cast<USHORT>(wish.share);
    return send(file, request);
}

// What follows the device's name is the device's to understand.
bool set_rest(FILE_OBJECT& file, const std::u16string& rest)
{
    if (rest.empty())
        return true;
    const auto bytes = static_cast<USHORT>(rest.size() * sizeof(WCHAR));
    auto* buffer = static_cast<PWSTR>(executive().system.allocate(bytes, name_tag));
    if (!buffer)
        return false;
    std::memcpy(buffer, rest.data(), bytes);
    file.FileName = {.Length = bytes, .MaximumLength = bytes, .Buffer = buffer};
    return true;
}

PFILE_OBJECT new_file(PDEVICE_OBJECT device, const std::u16string& rest, const Wish& wish)
{
    auto* file = static_cast<PFILE_OBJECT>(executive().system.allocate(sizeof(FILE_OBJECT), file_tag));
    if (!file)
        return nullptr;
    std::memset(file, 0, sizeof *file);
    file->Type = file_type;
    file->Size = sizeof *file;
    file->DeviceObject = device;
    if (wish.options & synchronous_options)
        file->Flags |= FO_SYNCHRONOUS_IO;
    if (rest.empty() && !(wish.access & ~direct_access))
        file->Flags |= FO_DIRECT_DEVICE_OPEN;
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, TRUE);
    ++device->ReferenceCount;
    if (set_rest(*file, rest))
        return file;
    free_file(file);
    return nullptr;
}

// A handle of the device of this name, with the file's only reference.
NTSTATUS open(const std::u16string& path, const Wish& wish, HANDLE& handle)
{
    ExecutiveState& kernel = executive();
    if (kernel.faults.hit(Operation::device_open, narrow(path)))
        return STATUS_INSUFFICIENT_RESOURCES;
    const auto [device, rest] = kernel.names.parse(path);
    if (!device)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (device->Flags & DO_DEVICE_INITIALIZING)
        return STATUS_NO_SUCH_DEVICE;
    if ((device->Flags & DO_EXCLUSIVE) && device->ReferenceCount != 0)
        return STATUS_ACCESS_DENIED;
    PFILE_OBJECT file = new_file(device, rest, wish);
    if (!file)
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = tell_create(file, wish);
    if (!NT_SUCCESS(status)) {
        free_file(file);
        return status;
    }
    file->Flags |= FO_HANDLE_CREATED;
    kernel.objects.add(
        file, ObjectKind::file, [file] { tell_close(file); }, [file] { tell_cleanup(file); });
    handle = kernel.objects.open(file);
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING name, ACCESS_MASK access, PFILE_OBJECT* file,
                                        PDEVICE_OBJECT* device)
{
    enter_at_most(PASSIVE_LEVEL, "IoGetDeviceObjectPointer");
    const Wish wish{.access = access,
                    .attributes = 0,
                    .share = 0,
                    .disposition = FILE_OPEN,
                    .options = FILE_NON_DIRECTORY_FILE};
    HANDLE handle;
    NTSTATUS status = check_wish(wish);
    if (NT_SUCCESS(status))
        status = open(text_of(*name), wish, handle);
    if (!NT_SUCCESS(status))
        return status;
    PVOID object;
    ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr);
    *file = static_cast<PFILE_OBJECT>(object);
    *device = top_of_stack((*file)->DeviceObject);
    return ZwClose(handle);
}

NTSTATUS NTAPI ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                            PIO_STATUS_BLOCK status_block, PLARGE_INTEGER, ULONG file_attributes, ULONG share,
                            ULONG disposition, ULONG options, PVOID, ULONG)
{
    enter_at_most(PASSIVE_LEVEL, "ZwCreateFile");
    const Wish wish{.access = access,
                    .attributes = file_attributes,
                    .share = share,
                    .disposition = disposition,
                    .options = options};
    NTSTATUS status = check_name(*attributes);
    if (NT_SUCCESS(status))
        status = check_wish(wish);
    if (NT_SUCCESS(status))
        status = open(text_of(*attributes->ObjectName), wish, *handle);
    if (!NT_SUCCESS(status))
        return status;
    status_block->Status = STATUS_SUCCESS;
    status_block->Information = FILE_OPENED;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT NTAPI IoGetRelatedDeviceObject(PFILE_OBJECT file)
{
    enter_at_most(DISPATCH_LEVEL, "IoGetRelatedDeviceObject");
    return top_of_stack(file->DeviceObject);
}

}  // extern "C"
