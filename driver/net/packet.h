// SPDX-License-Identifier: MIT
// Packets of a worker: set-up for a disk and direction, the tag of a transfer, and sending. All work in
// the worker's own entry, in its thread.
#pragma once

#include "driver/request/worker_block.h"

// Sets the entry up for packets of a disk; Write is 0 for reads.
void Pkt_Init(RW_Entry* pEntry, ULONG Lun, ULONG Write);

// Sets the tag and sequence fields for a transfer of so many bytes and counts it; Slot_Index is the index
// of the slot block.
void Pkt_Tag(RW_Entry* pEntry, ULONG Slot_Index, LONG Bytes);

// A write packet, not a status query during one.
inline bool Is_Write(const RW_Entry* pEntry)
{
    return pEntry->Hdr.Sub_Code == formats::sub_request && pEntry->Hdr.Kind == formats::kind_write;
}

// Sends what is outstanding of the packet whose offset and length the header holds.
void Send_Packet(RW_Entry* pEntry);

// Asks the server what it has of the packet, when the peer knows such queries.
void Send_Status_Query(RW_Entry* pEntry);
