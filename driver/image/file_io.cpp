// SPDX-License-Identifier: MIT
#include "driver/image/file_io.h"

#include "driver/kernel/bytes.h"
#include "formats/boot_block.h"

namespace {

constexpr char Dos_Devices[] = "\\DosDevices\\";
constexpr ULONG Prefix_Length = sizeof Dos_Devices - 1;
constexpr ULONG Path_Bytes = 128;
static_assert(Prefix_Length + Fsd_Name_Max + 1 == Path_Bytes);

// False when the name is too long.
bool Make_Path(char (&Path)[Path_Bytes], const char* Name)
{
    RtlCopyMemory(Path, Dos_Devices, Prefix_Length);
    for (ULONG Index = 0; Index <= Fsd_Name_Max; ++Index) {
        Path[Prefix_Length + Index] = Name[Index];
        if (!Name[Index])
            return true;
    }
    return false;
}

// False without memory for it; given back by RtlFreeUnicodeString.
bool Unicode_Path(const char* Name, UNICODE_STRING& Unicode)
{
    char Path[Path_Bytes];
    STRING Ansi;
    if (!Make_Path(Path, Name))
        return false;
    RtlInitString(&Ansi, Path);
    return NT_SUCCESS(RtlAnsiStringToUnicodeString(&Unicode, &Ansi, TRUE));
}

NTSTATUS Open(UNICODE_STRING& Path, HANDLE& File)
{
    OBJECT_ATTRIBUTES Attributes;
    IO_STATUS_BLOCK Result;
    InitializeObjectAttributes(&Attributes, &Path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    return ZwCreateFile(&File, SYNCHRONIZE, &Attributes, &Result, nullptr, 0,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

// One request to a device, made and waited for.
class Fsd_Request {
public:
    Fsd_Request(ULONG Major, PDEVICE_OBJECT pDevice, PVOID pBuffer, ULONG Bytes, LARGE_INTEGER* pOffset)
        : pDevice_(pDevice)
    {
        KeInitializeEvent(&Event_, NotificationEvent, FALSE);
        pIrp_ = IoBuildSynchronousFsdRequest(Major, pDevice, pBuffer, Bytes, pOffset, &Event_, &Result_);
    }
    Fsd_Request(const Fsd_Request&) = delete;
    Fsd_Request& operator=(const Fsd_Request&) = delete;

    PIRP Irp() const { return pIrp_; }
    NTSTATUS Fsd_Call_Wait()
    {
        NTSTATUS Status = IofCallDriver(pDevice_, pIrp_);
        if (Status != STATUS_PENDING)
            return Status;
        Status = KeWaitForSingleObject(&Event_, Executive, KernelMode, FALSE, nullptr);
        return NT_SUCCESS(Status) ? Result_.Status : Status;
    }
    ULONG_PTR Transferred() const { return Result_.Information; }

private:
    PDEVICE_OBJECT pDevice_;
    PIRP pIrp_;
    KEVENT Event_;
    IO_STATUS_BLOCK Result_{};
};

LONG Fsd_RW(ULONG Major, PDEVICE_OBJECT pDevice, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    if (!pDevice)
        return -Bytes;
    LARGE_INTEGER Offset;
    Offset.QuadPart = static_cast<LONGLONG>(Sector * formats::sector_bytes);
    Fsd_Request Request(Major, pDevice, pBuffer, static_cast<ULONG>(Bytes), &Offset);
    if (!Request.Irp()) {
        DbgPrint("\nQRNH_FSD: Irp=%p: %X %p, %08X %d", Request.Irp(), Major, pDevice,
                 static_cast<ULONG>(Sector), Bytes);
        return -Bytes;
    }
    if (Major == IRP_MJ_WRITE)
        IoGetNextIrpStackLocation(Request.Irp())->Flags |= SL_FORCE_DIRECT_WRITE;
    if (!NT_SUCCESS(Request.Fsd_Call_Wait()))
        return -Bytes;
    return static_cast<LONG>(Smaller<ULONG_PTR>(Request.Transferred(), static_cast<ULONG>(Bytes)));
}

}  // namespace

PDEVICE_OBJECT QRNH_FSD_Obj(const char* Name)
{
    UNICODE_STRING Path;
    if (!Unicode_Path(Name, Path)) {
        DbgPrint("\nQRNH_FSD_Obj: Rtl Error");
        return nullptr;
    }
    HANDLE File;
    NTSTATUS Status = Open(Path, File);
    DbgPrint("\nQRNH_FSD_Obj: ZwCreateFile %ws %X", Path.Buffer, Status);
    RtlFreeUnicodeString(&Path);
    if (!NT_SUCCESS(Status))
        return nullptr;
    PVOID pObject;
    Status = ObReferenceObjectByHandle(File, 0, nullptr, KernelMode, &pObject, nullptr);
    if (!NT_SUCCESS(Status)) {
        DbgPrint("\nQRNH_FSD_Obj: ObRef Error=%X", Status);
        ZwClose(File);
        return nullptr;
    }
    auto pFile = static_cast<PFILE_OBJECT>(pObject);
    DbgPrint("\nQRNH_FSD_Obj: %s=%p TOP=%p", Name, pFile->DeviceObject, IoGetRelatedDeviceObject(pFile));
    ZwClose(File);
    return pFile->DeviceObject;
}

LONG Fsd_Read(PDEVICE_OBJECT pDevice, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Fsd_RW(IRP_MJ_READ, pDevice, Sector, pBuffer, Bytes);
}

LONG Fsd_Write(PDEVICE_OBJECT pDevice, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Fsd_RW(IRP_MJ_WRITE, pDevice, Sector, pBuffer, Bytes);
}

bool Fsd_Flush(PDEVICE_OBJECT pDevice)
{
    if (!pDevice)
        return true;
    Fsd_Request Request(IRP_MJ_FLUSH_BUFFERS, pDevice, nullptr, 0, nullptr);
    if (!Request.Irp())
        return false;
    NTSTATUS Status = Request.Fsd_Call_Wait();
    return NT_SUCCESS(Status) || Status == STATUS_INVALID_DEVICE_REQUEST ||
           Status == STATUS_NOT_IMPLEMENTED || Status == STATUS_NOT_SUPPORTED;
}
