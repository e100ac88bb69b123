// SPDX-License-Identifier: MIT
#include "machine/loader/kernel_exports.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include <ndis5.h>

namespace machine {
namespace {

struct Export {
    std::string_view name;
    void* address;
};

struct Module {
    const char* name;
    std::span<const Export> exports;
};

#define ROUTINE(name)                                                                                        \
    {                                                                                                        \
#name, reinterpret_cast < void*>(&name)                                                              \
    }

const Export kernel[] = {
    ROUTINE(DbgPrint),
    ROUTINE(ExAllocatePool),
    ROUTINE(ExAllocatePoolWithTag),
    ROUTINE(ExFreePool),
    ROUTINE(ExFreePoolWithTag),
    ROUTINE(ExSystemTimeToLocalTime),
    ROUTINE(ExfInterlockedInsertHeadList),
    ROUTINE(ExfInterlockedInsertTailList),
    ROUTINE(ExfInterlockedRemoveHeadList),
    ROUTINE(IoAllocateIrp),
    ROUTINE(IoBuildDeviceIoControlRequest),
    ROUTINE(IoBuildSynchronousFsdRequest),
    ROUTINE(IoCreateDevice),
    ROUTINE(IoCreateSymbolicLink),
    ROUTINE(IoDeleteDevice),
    ROUTINE(IoFreeIrp),
    ROUTINE(IoFreeMdl),
    ROUTINE(IoGetDeviceObjectPointer),
    ROUTINE(IoGetRelatedDeviceObject),
    ROUTINE(IoInitializeIrp),
    ROUTINE(IoRegisterBootDriverReinitialization),
    ROUTINE(IoReuseIrp),
    ROUTINE(IofCallDriver),
    ROUTINE(IofCompleteRequest),
    ROUTINE(KeBugCheck),
    ROUTINE(KeBugCheckEx),
    ROUTINE(KeClearEvent),
    ROUTINE(KeDelayExecutionThread),
    ROUTINE(KeGetCurrentThread),
    ROUTINE(KeInitializeEvent),
    ROUTINE(KeInitializeSemaphore),
    ROUTINE(KeQueryInterruptTime),
    ROUTINE(KeQuerySystemTime),
    ROUTINE(KeReadStateEvent),
    ROUTINE(KeReadStateSemaphore),
    ROUTINE(KeReleaseSemaphore),
    ROUTINE(KeResetEvent),
    ROUTINE(KeSetEvent),
    ROUTINE(KeSetPriorityThread),
    ROUTINE(KeWaitForSingleObject),
    ROUTINE(KefAcquireSpinLockAtDpcLevel),
    ROUTINE(KefReleaseSpinLockFromDpcLevel),
    ROUTINE(Mm64BitPhysicalAddress),
    ROUTINE(MmAllocatePagesForMdl),
    ROUTINE(MmFreePagesFromMdl),
    ROUTINE(MmGetPhysicalMemoryRanges),
    ROUTINE(MmMapIoSpace),
    ROUTINE(MmMapLockedPagesSpecifyCache),
    ROUTINE(MmUnmapIoSpace),
    ROUTINE(MmUnmapLockedPages),
    ROUTINE(ObReferenceObjectByHandle),
    ROUTINE(ObfDereferenceObject),
    ROUTINE(ObfReferenceObject),
    ROUTINE(PsCreateSystemThread),
    ROUTINE(PsTerminateSystemThread),
    ROUTINE(RtlAnsiStringToUnicodeString),
    ROUTINE(RtlCompareMemory),
    ROUTINE(RtlFreeUnicodeString),
    ROUTINE(RtlInitAnsiString),
    ROUTINE(RtlInitString),
    ROUTINE(RtlInitUnicodeString),
    ROUTINE(ZwClose),
    ROUTINE(ZwCreateFile),
    ROUTINE(ZwOpenKey),
    ROUTINE(ZwQueryValueKey),
    ROUTINE(memcpy),
    ROUTINE(memmove),
    ROUTINE(memset),
};

const Export hal[] = {
    ROUTINE(KeGetCurrentIrql),  ROUTINE(KeRaiseIrqlToDpcLevel), ROUTINE(KeStallExecutionProcessor),
    ROUTINE(KfAcquireSpinLock), ROUTINE(KfLowerIrql),           ROUTINE(KfRaiseIrql),
    ROUTINE(KfReleaseSpinLock), ROUTINE(READ_PORT_UCHAR),       ROUTINE(WRITE_PORT_UCHAR),
};

const Export scsiport[] = {
    ROUTINE(ScsiPortInitialize),
    ROUTINE(ScsiPortNotification),
};

const Export ndis[] = {
    ROUTINE(NdisAllocateBuffer),     ROUTINE(NdisAllocateBufferPool), ROUTINE(NdisAllocatePacket),
    ROUTINE(NdisAllocatePacketPool), ROUTINE(NdisCloseAdapter),       ROUTINE(NdisFreeBufferPool),
    ROUTINE(NdisFreePacket),         ROUTINE(NdisFreePacketPool),     ROUTINE(NdisOpenAdapter),
    ROUTINE(NdisRegisterProtocol),   ROUTINE(NdisRequest),            ROUTINE(NdisSendPackets),
    ROUTINE(NdisTransferData),
};

#undef ROUTINE

const Module modules[] = {{"ntoskrnl.exe", kernel}, {"HAL.dll", hal}, {"SCSIPORT.SYS", scsiport}, {"NDIS.SYS", ndis}};

}  // namespace

void* kernel_export(const std::string& module, const std::string& name)
{
    for (const Module& candidate : modules) {
        if (strcasecmp(candidate.name, module.c_str()) != 0)
            continue;
        const auto found = std::ranges::find(candidate.exports, name, &Export::name);
        return found == candidate.exports.end() ? nullptr : found->address;
    }
    return nullptr;
}

}  // namespace machine
