// SPDX-License-Identifier: MIT
#include "transport/driver/net.h"

namespace transport {
namespace {

constexpr ULONG Ethernet_Bytes = sizeof(formats::EthernetHeader);

Receive_Slot* Take_Free(const Frame& Judged)
{
    const Net_Guard Guard(Net.Receive_Lock);
    Receive_Slot* const pSlot = Net.pFree_Receives;
    if (!pSlot) {
        InterlockedIncrement(&Net.Receives_Dropped);
        return nullptr;
    }
    Net.pFree_Receives = pSlot->pNext;
    pSlot->Judged = Judged;
    return pSlot;
}

void Put_Free(Receive_Slot* pSlot)
{
    const Net_Guard Guard(Net.Receive_Lock);
    pSlot->pNext = Net.pFree_Receives;
    Net.pFree_Receives = pSlot;
}

void Put_Ready(Receive_Slot* pSlot)
{
    const Net_Guard Guard(Net.Receive_Lock);
    pSlot->pNext = nullptr;
    if (Net.pFirst_Ready)
        Net.pLast_Ready->pNext = pSlot;
    else
        Net.pFirst_Ready = pSlot;
    Net.pLast_Ready = pSlot;
    ++Net.Unannounced;
}

// Wakes the receiver once for all that came since the last time.
void Announce()
{
    LONG Count;
    {
        const Net_Guard Guard(Net.Receive_Lock);
        Count = Net.Unannounced;
        Net.Unannounced = 0;
    }
    if (Count != 0)
        KeReleaseSemaphore(&Net.Ready, IO_NO_INCREMENT, Count, FALSE);
}

Receive_Slot* Take_Ready()
{
    const Net_Guard Guard(Net.Receive_Lock);
    Receive_Slot* const pSlot = Net.pFirst_Ready;
    Net.pFirst_Ready = pSlot->pNext;
    return pSlot;
}

void Take_Arp(const Frame& Judged, const formats::ArpFrame& Arp)
{
    if (Judged.Kind == Frame_Kind::Arp_Request) {
        Answer_Arp(Arp);
        return;
    }
    Ip_Address Ip;
    Hardware_Address Card;
    RtlCopyMemory(&Ip, Arp.Arp.Sender_Ip, sizeof Ip);
    RtlCopyMemory(&Card, Arp.Arp.Sender_Hardware, sizeof Card);
    const Net_Guard Guard(Net.Lock);
    Net.Table.Learn(Ip, Card, Now());
}

// A slot for a datagram whose beginning was shown; for all else what is to be done is done here.
Receive_Slot* Slot_For(const void* pLookahead, ULONG Lookahead_Bytes, ULONG Frame_Bytes)
{
    const Frame Judged = Judge_Frame(pLookahead, Lookahead_Bytes, Frame_Bytes, Net.Here);
    if (Judged.Kind == Frame_Kind::Datagram)
        return Take_Free(Judged);
    if (Judged.Kind != Frame_Kind::Not_For_Us)
        Take_Arp(Judged, *static_cast<const formats::ArpFrame*>(pLookahead));
    return nullptr;
}

ULONG Datagram_End(const Receive_Slot& Slot)
{
    return Slot.Judged.Payload_Offset + Slot.Judged.Payload_Bytes;
}

// The first bytes of a chain of buffers; how many there were.
ULONG Copy_Chain(PNDIS_BUFFER pBuffer, UCHAR* pTo, ULONG Bytes)
{
    ULONG Copied = 0;
    for (; pBuffer && Copied < Bytes; pBuffer = pBuffer->Next) {
        const auto* const pFrom =
            static_cast<const UCHAR*>(MmGetSystemAddressForMdlSafe(pBuffer, NormalPagePriority));
        if (!pFrom)
            return Copied;
        const ULONG Left = Bytes - Copied;
        const ULONG Piece = MmGetMdlByteCount(pBuffer) < Left ? MmGetMdlByteCount(pBuffer) : Left;
        RtlCopyMemory(pTo + Copied, pFrom, Piece);
        Copied += Piece;
    }
    return Copied;
}

ULONG Chain_Bytes(PNDIS_BUFFER pBuffer)
{
    ULONG Bytes = 0;
    for (; pBuffer; pBuffer = pBuffer->Next)
        Bytes += MmGetMdlByteCount(pBuffer);
    return Bytes;
}

void Finish(Receive_Slot* pSlot, bool Whole)
{
    if (Whole)
        Put_Ready(pSlot);
    else
        Put_Free(pSlot);
}

}  // namespace

INT NTAPI Receive_Packet(NDIS_HANDLE, PNDIS_PACKET pPacket)
{
    alignas(4) UCHAR Lookahead[Lookahead_Bytes_Min];
    const PNDIS_BUFFER pFirst = pPacket->Private.Head;
    const ULONG Shown = Copy_Chain(pFirst, Lookahead, sizeof Lookahead);
    if (Receive_Slot* const pSlot = Slot_For(Lookahead, Shown, Chain_Bytes(pFirst)))
        Finish(pSlot, Copy_Chain(pFirst, pSlot->Bytes, Datagram_End(*pSlot)) == Datagram_End(*pSlot));
    return 0;  // the card has its packet back
}

NDIS_STATUS NTAPI Receive_Lookahead(NDIS_HANDLE, NDIS_HANDLE Card_Context, PVOID pHeader, UINT Header_Bytes,
                                    PVOID pLookahead, UINT Lookahead_Bytes, UINT Packet_Bytes)
{
    alignas(4) UCHAR Lookahead[Lookahead_Bytes_Min];
    if (Header_Bytes != Ethernet_Bytes || Packet_Bytes > formats::ethernet_payload_bytes_max ||
        Lookahead_Bytes > Packet_Bytes)
        return NDIS_STATUS_NOT_ACCEPTED;
    const ULONG Room = sizeof Lookahead - Ethernet_Bytes;
    const ULONG Shown = Lookahead_Bytes < Room ? Lookahead_Bytes : Room;
    RtlCopyMemory(Lookahead, pHeader, Ethernet_Bytes);
    RtlCopyMemory(Lookahead + Ethernet_Bytes, pLookahead, Shown);
    Receive_Slot* const pSlot = Slot_For(Lookahead, Ethernet_Bytes + Shown, Ethernet_Bytes + Packet_Bytes);
    if (!pSlot)
        return NDIS_STATUS_NOT_ACCEPTED;
    const UINT Wanted = Datagram_End(*pSlot) - Ethernet_Bytes;
    RtlCopyMemory(pSlot->Bytes, pHeader, Ethernet_Bytes);
    if (Lookahead_Bytes >= Wanted) {
        RtlCopyMemory(pSlot->Bytes + Ethernet_Bytes, pLookahead, Wanted);
        Put_Ready(pSlot);
        return NDIS_STATUS_SUCCESS;
    }
    NDIS_STATUS Status;
    UINT Transferred = 0;
    NdisAdjustBufferLength(pSlot->pBuffer, Wanted);
    pSlot->pPacket->Private.ValidCounts = FALSE;
    NdisTransferData(&Status, Net.Binding, Card_Context, 0, Wanted, pSlot->pPacket, &Transferred);
    if (Status != NDIS_STATUS_PENDING)
        Finish(pSlot, Status == NDIS_STATUS_SUCCESS && Transferred == Wanted);
    return NDIS_STATUS_SUCCESS;
}

VOID NTAPI Transfer_Complete(NDIS_HANDLE, PNDIS_PACKET pPacket, NDIS_STATUS Status, UINT Bytes)
{
    auto* const pSlot = *reinterpret_cast<Receive_Slot**>(pPacket->ProtocolReserved);
    Finish(pSlot, Status == NDIS_STATUS_SUCCESS && Bytes == Datagram_End(*pSlot) - Ethernet_Bytes);
    Announce();  // the end of its batch may have been told before
}

VOID NTAPI Receive_Complete(NDIS_HANDLE)
{
    Announce();
}

ULONG NTAPI Receive(PVOID* ppHeader)
{
    for (;;) {
        KeWaitForSingleObject(&Net.Ready, Executive, KernelMode, FALSE, nullptr);
        Receive_Slot* const pSlot = Take_Ready();
        // Here, where no card waits meanwhile.
        if (Datagram_Is_Sound(pSlot->Bytes, pSlot->Judged)) {
            pSlot->With_Caller = true;
            *ppHeader = pSlot->Bytes + pSlot->Judged.Payload_Offset;
            return pSlot->Judged.Payload_Bytes;
        }
        InterlockedIncrement(&Net.Damaged);
        Put_Free(pSlot);
    }
}

VOID NTAPI Release(PVOID pHeader)
{
    if (!pHeader)
        return;
    const auto Offset =
        static_cast<ULONG>(static_cast<UCHAR*>(pHeader) - reinterpret_cast<UCHAR*>(Net.pReceive_Slots));
    const ULONG Index = Offset / sizeof(Receive_Slot);
    ASSERT(Index < Receive_Slots && Net.pReceive_Slots[Index].With_Caller);
    Receive_Slot* const pSlot = &Net.pReceive_Slots[Index];
    pSlot->With_Caller = false;
    Put_Free(pSlot);
}

}  // namespace transport
