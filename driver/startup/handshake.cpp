// SPDX-License-Identifier: MIT
#include "driver/startup/handshake.h"

static NTSTATUS Send_Control(PDEVICE_OBJECT pDevice, ULONG Control_Code, PVOID pOutput, ULONG Output_Bytes)
{
    IO_STATUS_BLOCK Io_Status;
    PIRP pIrp = IoBuildDeviceIoControlRequest(Control_Code, pDevice, &Boot_Param, sizeof Boot_Param, pOutput,
                                              Output_Bytes, FALSE, &Start_Event, &Io_Status);
    if (!pIrp)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS Status = IofCallDriver(pDevice, pIrp);
    if (Status == STATUS_PENDING)
        Status = KeWaitForSingleObject(&Start_Event, Executive, KernelMode, FALSE, nullptr);
    return Status;
}

NTSTATUS QRN_DCIO(PCWSTR Device_Name, ULONG Control_Code, PVOID pOutput, ULONG Output_Bytes)
{
    UNICODE_STRING Name;
    RtlInitUnicodeString(&Name, Device_Name);
    PFILE_OBJECT pFile;
    PDEVICE_OBJECT pDevice;
    NTSTATUS Status = IoGetDeviceObjectPointer(&Name, FILE_ALL_ACCESS, &pFile, &pDevice);
    if (!NT_SUCCESS(Status))
        return Status;
    Status = Send_Control(pDevice, Control_Code, pOutput, Output_Bytes);
    ObDereferenceObject(pFile);
    KeResetEvent(&Start_Event);
    return Status;
}
