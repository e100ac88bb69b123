// SPDX-License-Identifier: MIT
#include "driver/request/completion.h"

#include "driver/request/channel.h"
#include "driver/request/request.h"
#include "driver/request/sense.h"
#include "driver/state/boot_param.h"

static void Complete_Internal(RW_Req* pReq)
{
    if (pReq->pDone)
        KeSetEvent(static_cast<PKEVENT>(pReq->pDone), IO_NO_INCREMENT, FALSE);
}

void Req_Complete(RW_Req* pReq, ULONG Lun)
{
    PSCSI_REQUEST_BLOCK Srb = pReq->pSrb;
    if (!Srb) {
        Complete_Internal(pReq);
        return;
    }
    if (pReq->Status != 0) {
        // The disk reports no medium from now on.
        Boot_Param.Disks[Lun].Disk_Secs.set(0);
        Set_Sense(Srb, Sense_No_Medium);
    } else {
        Srb->SrbStatus = SRB_STATUS_SUCCESS;
    }
    Chan_Send(static_cast<Hw_Ext*>(pReq->pDone), Srb, Lun);
}
