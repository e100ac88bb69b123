// SPDX-License-Identifier: MIT
// The way into the miniport's own context, where alone the port driver may be notified, from a worker at
// PASSIVE_LEVEL. One IRP and one SRB of the adapter serve all notices in turn.
#pragma once

#include <nt.h>

#include "driver/kernel/locks.h"

// The miniport device extension: one per adapter, allocated by the port driver.
struct Hw_Ext {
    PDEVICE_OBJECT pPort_Dev;  // the port driver's controller device; completion notices go to it
    Busy_Mutex Chan_Free;      // held while a notice is under way, and until there is an IRP for one
    PIRP pChan_Irp;            // the channel's one IRP, used again for every notice and never freed
    // Written only by the thread that holds the channel.
    SCSI_REQUEST_BLOCK Chan_Srb;
    SRB_IO_CONTROL Chan_Ioctl;  // the data of Chan_Srb
};

// The adapter, once notices can go out; null before. Time-outs of what no request asked for are told there.
extern Hw_Ext* volatile pNotice_Adapter;

constexpr char Chan_Signature[] = "QRN.Disk";  // of an SRB_IO_CONTROL, without the terminator
constexpr ULONG Done_Code = 0x1B2183;          // the notice's control code

// Sends a completion notice for Srb, waiting for the channel; without an SRB, a notice that the disk can
// take its next request, dropped when the channel is busy.
void Chan_Send(Hw_Ext* pExt, PSCSI_REQUEST_BLOCK Srb, ULONG Lun);
