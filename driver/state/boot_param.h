// SPDX-License-Identifier: MIT
// What the driver knows of its disks and servers, and the entry points of the transport. Filled by the
// loading thread before any other thread of the driver runs (boot_record, handshake, driver_entry).
//
// At run time only Disk_Secs (0 after a failure), Lun_Nums (reinitialisation) and the server records
// (failover, shutdown notice) change; the server records are guarded by Server_Lock (net/servers.h).
#pragma once

#include <nt.h>

#include "formats/boot_block.h"

// The transport's entry points. Server names a 14-byte address record; nothing passed is kept after
// the call. QRN_Send may be called by several threads at once, at up to DISPATCH_LEVEL.
using Send_Entry = VOID(NTAPI*)(PVOID Server, PVOID Header, ULONG Header_Bytes, PVOID Data, ULONG Data_Bytes);
// Waits for a packet, stores its address and returns its length in bytes. PASSIVE_LEVEL.
using Recv_Entry = ULONG(NTAPI*)(PVOID* pHeader);
using Release_Entry = VOID(NTAPI*)(PVOID Header);

struct Ndis_Handover_Block {
    Send_Entry QRN_Send;  // null: there is no transport
    Recv_Entry QRN_Recv;
    Release_Entry QRN_Release;
    volatile formats::Boot_Param* pNdis_Block;  // the transport's own boot parameter block
    volatile ULONG* pTrans_Flag;                // may be null
};
static_assert(sizeof(Ndis_Handover_Block) == 20);
static_assert(offsetof(Ndis_Handover_Block, pNdis_Block) == 12);
static_assert(offsetof(Ndis_Handover_Block, pTrans_Flag) == 16);

extern formats::Boot_Param Boot_Param;
extern Ndis_Handover_Block Ndis_Handover;

// Notification event: set once a usable source of disks exists; releases the driver's threads.
extern KEVENT Start_Event;

// Disks that may be presented, as a signed number: a Local_Nums above Disk_Nums matches no count.
inline LONG Presented_Disks()
{
    return static_cast<LONG>(Boot_Param.Disk_Nums) - static_cast<LONG>(Boot_Param.Local_Nums);
}

// LUNs of the block. The disk table has four entries whatever a block claims.
inline ULONG Lun_Count()
{
    ULONG Luns = *const_cast<volatile UCHAR*>(&Boot_Param.Lun_Nums);
    return Luns < formats::disk_count_max ? Luns : formats::disk_count_max;
}

// LUN numbers below this are valid: none before the driver's threads may run, who would serve them.
inline ULONG Valid_Luns()
{
    return KeReadStateEvent(&Start_Event) ? Lun_Count() : 0;
}
