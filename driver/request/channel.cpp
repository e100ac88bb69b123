// SPDX-License-Identifier: MIT
#include "driver/request/channel.h"

Hw_Ext* volatile pNotice_Adapter;

static NTSTATUS NTAPI Chan_Done(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    IoReuseIrp(Irp, STATUS_UNSUCCESSFUL);
    auto pExt = static_cast<Hw_Ext*>(Context);
    Mutex_Give(pExt->Chan_Free);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Completions that wait for the channel go before a notice that need not be sent.
static bool Take_Channel(Hw_Ext* pExt, bool Wait)
{
    if (!Wait)
        return Mutex_Try(pExt->Chan_Free);
    Mutex_Take(pExt->Chan_Free);
    return true;
}

void Chan_Send(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb, ULONG Lun)
{
    if (!pExt || !Take_Channel(pExt, Srb != nullptr))
        return;
    pExt->Chan_Srb.Lun = static_cast<UCHAR>(Lun);
    pExt->Chan_Srb.OriginalRequest = pExt->pChan_Irp;
    pExt->Chan_Srb.SrbFlags = SRB_FLAGS_NO_QUEUE_FREEZE | SRB_FLAGS_BYPASS_FROZEN_QUEUE;
    pExt->Chan_Ioctl.ReturnCode = reinterpret_cast<ULONG>(Srb);

    PIO_STACK_LOCATION pStack = IoGetNextIrpStackLocation(pExt->pChan_Irp);
    pStack->MajorFunction = IRP_MJ_SCSI;
    pStack->Parameters.DeviceIoControl.IoControlCode = IOCTL_SCSI_EXECUTE_NONE;
    pStack->Parameters.Scsi.Srb = &pExt->Chan_Srb;
    IoSetCompletionRoutine(pExt->pChan_Irp, Chan_Done, pExt, TRUE, TRUE, TRUE);
    IofCallDriver(pExt->pPort_Dev, pExt->pChan_Irp);
}
