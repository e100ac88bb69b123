// SPDX-License-Identifier: MIT
#include "driver/miniport/adapter.h"

#include "driver/miniport/start_io.h"
#include "driver/request/channel.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "driver/state/settings.h"
#include "driver/state/stop_level.h"

PDRIVER_OBJECT pDriver_Obj;

static PDRIVER_DISPATCH pOrig_Scsi_Dispatch;

constexpr ULONG Rescan_Period_Us = 1000000;
constexpr ULONG No_Time_Out = 0xFFFFFFFF;

VOID NTAPI Bus_Change_Timer(PVOID HwDeviceExtension)
{
    if (Boot_Param.Lun_Nums == Presented_Disks()) {
        DbgPrint("\nQRN SCSI: BusChangeDetected For HDD Boot");
        ScsiPortNotification(BusChangeDetected, HwDeviceExtension, 0);
    } else {
        ScsiPortNotification(RequestTimerCall, HwDeviceExtension, Bus_Change_Timer, Rescan_Period_Us);
    }
}

static void Fill_Configuration(PPORT_CONFIGURATION_INFORMATION pConfig)
{
    pConfig->AdapterInterfaceType = PCIBus;
    pConfig->MaximumTransferLength = TRANS_SIZE;
    pConfig->NumberOfPhysicalBreaks = SP_UNINITIALIZED_VALUE;
    pConfig->AlignmentMask = 3;
    pConfig->NumberOfBuses = 1;
    pConfig->ScatterGather = TRUE;
    pConfig->Master = TRUE;
    pConfig->CachesData = TRUE;
    pConfig->Dma32BitAddresses = TRUE;
    if (pConfig->Dma64BitAddresses & SCSI_DMA64_SYSTEM_SUPPORTED)
        pConfig->Dma64BitAddresses = SCSI_DMA64_MINIPORT_SUPPORTED;
    pConfig->RealModeInitialized = FALSE;
    pConfig->BufferAccessScsiPortControlled = FALSE;
    pConfig->MaximumNumberOfTargets = 1;
    pConfig->MaximumNumberOfLogicalUnits = formats::disk_count_max;
}

// The port driver's arguments say that the system goes down with a crash dump or into hibernation, where no
// thread of the driver runs and no disk can be served.
static bool For_Dump(PCSTR Arguments)
{
    constexpr char Mark[] = "dump=1";
    for (; Arguments && *Arguments; ++Arguments) {
        SIZE_T Same = 0;
        while (Mark[Same] && Arguments[Same] == Mark[Same])
            ++Same;
        if (!Mark[Same])
            return true;
    }
    return false;
}

static ULONG NTAPI HwFindAdapter(PVOID HwDeviceExtension, PVOID, PVOID, PCHAR Arguments,
                                 PPORT_CONFIGURATION_INFORMATION pConfig, PBOOLEAN pAgain)
{
    *pAgain = FALSE;
    if (For_Dump(Arguments))
        return SP_RETURN_NOT_FOUND;
    DbgPrint("\nQRN SCSI: HwFindAdapter %X %d", HwDeviceExtension, Boot_Param.Lun_Nums);
    if (InterlockedCompareExchange(&Stop_Level, Stop_Adapter_Found, Stop_Loaded) != Stop_Loaded)
        return SP_RETURN_NOT_FOUND;
    if (Boot_Param.Lun_Nums != Presented_Disks())
        Bus_Change_Timer(HwDeviceExtension);
    auto pExt = static_cast<Hw_Ext*>(HwDeviceExtension);
    pExt->pChan_Irp = nullptr;
    Mutex_Init(pExt->Chan_Free, false);
    Fill_Configuration(pConfig);
    return SP_RETURN_FOUND;
}

// The port driver's controller device, with an IRP that fits it; null and null when there is none.
static void Find_Controller(Hw_Ext* pExt)
{
    pExt->pChan_Irp = nullptr;
    for (pExt->pPort_Dev = pDriver_Obj->DeviceObject; pExt->pPort_Dev;
         pExt->pPort_Dev = pExt->pPort_Dev->NextDevice) {
        DbgPrint("\nQRN SCSI: Enum Device Type %X", pExt->pPort_Dev->DeviceType);
        if (pExt->pPort_Dev->DeviceType == FILE_DEVICE_CONTROLLER) {
            pExt->pChan_Irp = IoAllocateIrp(pExt->pPort_Dev->StackSize, FALSE);
            return;
        }
    }
    DbgPrint("\nQRN SCSI: Not Found FILE_DEVICE_CONTROLLER");
}

// True when the IRP certainly carries an SRB: class drivers send theirs without a control code, others
// with one of the three that execute an SRB. Other internal requests of this major function may pass
// through the adapter, and their first argument is something else.
static bool Carries_Srb(PIO_STACK_LOCATION pStack)
{
    if (pStack->MajorFunction != IRP_MJ_SCSI)
        return false;
    switch (pStack->Parameters.DeviceIoControl.IoControlCode) {
    case 0:
    case IOCTL_SCSI_EXECUTE_IN:
    case IOCTL_SCSI_EXECUTE_OUT:
    case IOCTL_SCSI_EXECUTE_NONE:
        return pStack->Parameters.Scsi.Srb &&
               pStack->Parameters.Scsi.Srb->Length == sizeof(SCSI_REQUEST_BLOCK);
    default:
        return false;
    }
}

// The time-outs of a request are the driver's own; the port driver counts none. And while an SRB is here that
// must not disconnect, a port driver sends nothing else, completion notices included, so that nothing would
// ever complete: class drivers mark the last try of a refused request so. Callers' threads, up to
// DISPATCH_LEVEL.
static NTSTATUS NTAPI Scsi_Dispatch_Hook(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(Irp);
    if (Carries_Srb(pStack)) {
        PSCSI_REQUEST_BLOCK Srb = pStack->Parameters.Scsi.Srb;
        if (Srb->TimeOutValue != 0)
            Srb->TimeOutValue = No_Time_Out;
        Srb->SrbFlags &= ~static_cast<ULONG>(SRB_FLAGS_DISABLE_DISCONNECT);
    }
    return pOrig_Scsi_Dispatch(DeviceObject, Irp);
}

static void Hook_Scsi_Dispatch()
{
    PDRIVER_DISPATCH& Entry = pDriver_Obj->MajorFunction[IRP_MJ_SCSI];
    pOrig_Scsi_Dispatch = Entry;
    if (Entry)
        Entry = Scsi_Dispatch_Hook;
}

static void Prepare_Channel(Hw_Ext* pExt)
{
    RtlZeroMemory(&pExt->Chan_Srb, sizeof pExt->Chan_Srb);
    pExt->Chan_Srb.Length = sizeof(SCSI_REQUEST_BLOCK);
    pExt->Chan_Srb.Function = SRB_FUNCTION_IO_CONTROL;
    pExt->Chan_Srb.QueueTag = SP_UNTAGGED;
    pExt->Chan_Srb.TimeOutValue = No_Time_Out;
    pExt->Chan_Srb.DataBuffer = &pExt->Chan_Ioctl;
    pExt->Chan_Srb.DataTransferLength = sizeof(SRB_IO_CONTROL);

    pExt->Chan_Ioctl.HeaderLength = sizeof(SRB_IO_CONTROL);
    RtlCopyMemory(pExt->Chan_Ioctl.Signature, Chan_Signature, sizeof pExt->Chan_Ioctl.Signature);
    pExt->Chan_Ioctl.Timeout = No_Time_Out;
    pExt->Chan_Ioctl.ControlCode = Done_Code;
    pExt->Chan_Ioctl.Length = 0;
}
static_assert(sizeof(SRB_IO_CONTROL) == 28);
static_assert(sizeof(Chan_Signature) - 1 == sizeof(SRB_IO_CONTROL::Signature));

static BOOLEAN NTAPI HwInitialize(PVOID HwDeviceExtension)
{
    auto pExt = static_cast<Hw_Ext*>(HwDeviceExtension);
    DbgPrint("\nQRN SCSI: HwInitialize %X", HwDeviceExtension);
    if (pExt->pChan_Irp)
        return TRUE;  // again, as after a change of power; a notice may be under way
    Find_Controller(pExt);
    if (!pExt->pChan_Irp) {
        DbgPrint(" NULL");
        return FALSE;
    }
    Hook_Scsi_Dispatch();
    Prepare_Channel(pExt);
    Mutex_Give(pExt->Chan_Free);
    pNotice_Adapter = pExt;
    return TRUE;
}

// Requests go on in the workers; nothing is completed here.
static BOOLEAN NTAPI HwResetBus(PVOID, ULONG)
{
    DbgPrint("\nQRN SCSI: HwResetBus");
    return TRUE;
}

NTSTATUS Miniport_Register(PDRIVER_OBJECT pDriver, PUNICODE_STRING pService_Key)
{
    HW_INITIALIZATION_DATA Init;
    RtlZeroMemory(&Init, sizeof Init);
    Init.HwInitializationDataSize = sizeof Init;
    Init.AdapterInterfaceType = Isa;
    Init.HwInitialize = HwInitialize;
    Init.HwStartIo = HwStartIo;
    Init.HwFindAdapter = HwFindAdapter;
    Init.HwResetBus = HwResetBus;
    Init.DeviceExtensionSize = sizeof(Hw_Ext);
    Init.SrbExtensionSize = sizeof(RW_Req);
    Init.MapBuffers = TRUE;
    Init.TaggedQueuing = TRUE;
    Init.AutoRequestSense = TRUE;
    Init.MultipleRequestPerLu = TRUE;
    return ScsiPortInitialize(pDriver, pService_Key, &Init, nullptr);
}
