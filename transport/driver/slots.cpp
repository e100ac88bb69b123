// SPDX-License-Identifier: MIT
#include "transport/driver/net.h"

namespace transport {
namespace {

constexpr ULONG Tag_Slots = 'S' | 'N' << 8 | 'R' << 16 | 'Q' << 24;

// The descriptor finds its slot again.
template <typename Slot>
bool Make_Descriptor(Slot& Made, PVOID pBytes, UINT Bytes)
{
    NDIS_STATUS Status;
    NdisAllocatePacket(&Status, &Made.pPacket, Net.Packet_Pool);
    if (Status != NDIS_STATUS_SUCCESS) {
        Made.pPacket = nullptr;
        return false;
    }
    *reinterpret_cast<Slot**>(Made.pPacket->ProtocolReserved) = &Made;
    NdisAllocateBuffer(&Status, &Made.pBuffer, Net.Buffer_Pool, pBytes, Bytes);
    if (Status != NDIS_STATUS_SUCCESS) {
        Made.pBuffer = nullptr;
        return false;
    }
    NdisChainBufferAtFront(Made.pPacket, Made.pBuffer);
    return true;
}

template <typename Slot>
void Free_Descriptors(Slot* pSlots, ULONG Count)
{
    for (ULONG i = 0; pSlots && i < Count; ++i) {
        if (pSlots[i].pBuffer)
            NdisFreeBuffer(pSlots[i].pBuffer);
        if (pSlots[i].pPacket)
            NdisFreePacket(pSlots[i].pPacket);
    }
    if (pSlots)
        ExFreePoolWithTag(pSlots, Tag_Slots);
}

template <typename Slot>
Slot* Allocate(ULONG Count)
{
    auto* const pSlots =
        static_cast<Slot*>(ExAllocatePoolWithTag(NonPagedPool, Count * sizeof(Slot), Tag_Slots));
    if (pSlots)
        RtlZeroMemory(pSlots, Count * sizeof(Slot));
    return pSlots;
}

bool Make_Pools()
{
    NDIS_STATUS Status;
    NdisAllocatePacketPool(&Status, &Net.Packet_Pool, Send_Slots + Receive_Slots, sizeof(PVOID));
    if (Status != NDIS_STATUS_SUCCESS) {
        Net.Packet_Pool = nullptr;
        return false;
    }
    NdisAllocateBufferPool(&Status, &Net.Buffer_Pool, Send_Slots + Receive_Slots);
    if (Status != NDIS_STATUS_SUCCESS) {
        NdisFreePacketPool(Net.Packet_Pool);
        Net.Packet_Pool = nullptr;
        return false;
    }
    return true;
}

}  // namespace

bool Make_Slots()
{
    if (!Make_Pools())
        return false;
    Net.pSend_Slots = Allocate<Send_Slot>(Send_Slots);
    Net.pReceive_Slots = Allocate<Receive_Slot>(Receive_Slots);
    if (!Net.pSend_Slots || !Net.pReceive_Slots)
        return false;
    for (ULONG i = 0; i < Send_Slots; ++i) {
        Send_Slot& Slot = Net.pSend_Slots[i];
        if (!Make_Descriptor(Slot, Slot.Bytes, sizeof Slot.Bytes))
            return false;
        Slot.pNext = Net.pFree_Sends;
        Net.pFree_Sends = &Slot;
    }
    for (ULONG i = 0; i < Receive_Slots; ++i) {
        Receive_Slot& Slot = Net.pReceive_Slots[i];
        constexpr ULONG Behind = sizeof(formats::EthernetHeader);
        if (!Make_Descriptor(Slot, Slot.Bytes + Behind, sizeof Slot.Bytes - Behind))
            return false;
        Slot.pNext = Net.pFree_Receives;
        Net.pFree_Receives = &Slot;
    }
    return true;
}

void Free_Slots()
{
    if (!Net.Packet_Pool)
        return;
    Free_Descriptors(Net.pSend_Slots, Send_Slots);
    Free_Descriptors(Net.pReceive_Slots, Receive_Slots);
    NdisFreeBufferPool(Net.Buffer_Pool);
    NdisFreePacketPool(Net.Packet_Pool);
}

}  // namespace transport
