// SPDX-License-Identifier: MIT
#include "transport/driver/entry.h"

#include "transport/core/boot_records.h"
#include "transport/driver/net.h"

namespace transport {

constinit Net_State Net{};  // a driver has nobody who would run a constructor

namespace {

constexpr ULONG Code_Handover = CTL_CODE(0x800, 0x40, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG Code_No_Server = CTL_CODE(0x800, 0x41, METHOD_BUFFERED, FILE_ANY_ACCESS);

struct Handover {
    VOID(NTAPI* QRN_Send)(PVOID, PVOID, ULONG, PVOID, ULONG);
    ULONG(NTAPI* QRN_Recv)(PVOID*);
    VOID(NTAPI* QRN_Release)(PVOID);
    formats::Boot_Param* pNdis_Block;
    volatile ULONG* pTrans_Flag;
};
static_assert(Code_Handover == 0x8000100 && Code_No_Server == 0x8000104 && sizeof(Handover) == 20);

NTSTATUS Complete(PIRP pIrp, NTSTATUS Status, ULONG_PTR Bytes)
{
    pIrp->IoStatus.Status = Status;
    pIrp->IoStatus.Information = Bytes;
    IofCompleteRequest(pIrp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS NTAPI Dispatch_Open(PDEVICE_OBJECT, PIRP pIrp)
{
    return Complete(pIrp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI Dispatch_Control(PDEVICE_OBJECT, PIRP pIrp)
{
    const auto& Parameters = IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl;
    if (Parameters.IoControlCode != Code_Handover && Parameters.IoControlCode != Code_No_Server)
        return Complete(pIrp, STATUS_INVALID_DEVICE_REQUEST, 0);
    if (Parameters.InputBufferLength < sizeof(formats::Boot_Param))
        return Complete(pIrp, STATUS_INVALID_PARAMETER, 0);
    // The disks come from the boot program's record: there is nobody to ask anew.
    if (Parameters.IoControlCode == Code_No_Server)
        return Complete(pIrp, STATUS_SUCCESS, 0);
    if (Parameters.OutputBufferLength < sizeof(Handover))
        return Complete(pIrp, STATUS_BUFFER_TOO_SMALL, 0);
    const Handover Ours{Send, Receive, Release, &Net.Block, &Net.Flag};
    RtlCopyMemory(pIrp->AssociatedIrp.SystemBuffer, &Ours, sizeof Ours);
    return Complete(pIrp, STATUS_SUCCESS, sizeof Ours);
}

bool Read_Records()
{
    PHYSICAL_ADDRESS Start;
    Start.QuadPart = 0;
    PVOID const pMemory = MmMapIoSpace(Start, formats::low_memory_bytes, MmCached);
    if (!pMemory)
        return false;
    Boot_Records Found;
    Find_Boot_Records(pMemory, formats::low_memory_bytes, Found);
    MmUnmapIoSpace(pMemory, formats::low_memory_bytes);
    Net.Here = Found.Here;
    Net.Disks = Found.Disks;
    return Found.Has_Disks && Found.Has_Network && Found.Here.Card.Is_One_Card() && !Found.Here.Own.Is_Zero();
}

void Begin_State()
{
    RtlZeroMemory(&Net, sizeof Net);
    KeInitializeSpinLock(&Net.Lock);
    KeInitializeSpinLock(&Net.Receive_Lock);
    KeInitializeEvent(&Net.Completed, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Net.Nothing_Out, NotificationEvent, FALSE);
    KeInitializeSemaphore(&Net.Ready, 0, MAXLONG);
    Net.Block.Disk_Nums = formats::disk_nums_searching;
}

NTSTATUS Make_Device(PDRIVER_OBJECT pDriver)
{
    UNICODE_STRING Name;
    RtlInitUnicodeString(&Name, L"\\Device\\QRNNDIS");
    const NTSTATUS Status = IoCreateDevice(pDriver, 0, &Name, FILE_DEVICE_NETWORK, 0, FALSE, &Net.pDevice);
    if (NT_SUCCESS(Status))
        Net.pDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return Status;
}

}  // namespace
}  // namespace transport

using namespace transport;

NTSTATUS NTAPI QRNNET_Entry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    Begin_State();
    if (!Read_Records())
        return STATUS_DEVICE_DOES_NOT_EXIST;
    pDriver->MajorFunction[IRP_MJ_CREATE] = Dispatch_Open;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = Dispatch_Open;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = Dispatch_Open;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Dispatch_Control;
    NTSTATUS Status = Make_Slots() ? Make_Device(pDriver) : STATUS_INSUFFICIENT_RESOURCES;
    if (NT_SUCCESS(Status)) {
        Status = Register_Protocol();
        if (!NT_SUCCESS(Status))
            IoDeleteDevice(Net.pDevice);
    }
    if (!NT_SUCCESS(Status))
        Free_Slots();
    return Status;
}
