// SPDX-License-Identifier: MIT
#include "transport/driver/net.h"

namespace transport {
namespace {

// Under Lock. Whoever has a slot keeps the binding from ending until the slot is back.
Send_Slot* Take_Slot()
{
    Send_Slot* const pSlot = Net.pFree_Sends;
    if (!pSlot) {
        InterlockedIncrement(&Net.Sends_Dropped);
        return nullptr;
    }
    Net.pFree_Sends = pSlot->pNext;
    ++Net.Sends_Out;
    return pSlot;
}

void Give_Slot_Back(Send_Slot* pSlot)
{
    const Net_Guard Guard(Net.Lock);
    pSlot->pNext = Net.pFree_Sends;
    Net.pFree_Sends = pSlot;
    if (--Net.Sends_Out == 0 && !Net.Bound)
        KeSetEvent(&Net.Nothing_Out, IO_NO_INCREMENT, FALSE);
}

void Hand_Down(Send_Slot* pSlot, ULONG Bytes)
{
    NdisAdjustBufferLength(pSlot->pBuffer, Bytes);
    pSlot->pPacket->Private.ValidCounts = FALSE;
    NdisSendPackets(Net.Binding, &pSlot->pPacket, 1);
}

}  // namespace

// What is not sent, its sender sends again: nothing waits here for a neighbour or for a card.
VOID NTAPI Send(PVOID pServer, PVOID pHeader, ULONG Header_Bytes, PVOID pData, ULONG Data_Bytes)
{
    const auto& Record = *static_cast<const formats::ServerRecord*>(pServer);
    Ip_Address To, Hop;
    Hardware_Address Hint{};
    RtlCopyMemory(&To, Record.Ip, sizeof To);
    if (Header_Bytes > Payload_Bytes_Max || Data_Bytes > Payload_Bytes_Max - Header_Bytes ||
        !Next_Hop(Net.Here, To, Hop)) {
        InterlockedIncrement(&Net.Sends_Dropped);
        return;
    }
    if (Hop == To)
        RtlCopyMemory(&Hint, Record.Hardware, sizeof Hint);

    Neighbours::Way Way;
    Send_Slot *pSlot, *pQuestion;
    USHORT Id;
    {
        const Net_Guard Guard(Net.Lock);
        if (!Net.Bound || !Net.Link_Up) {
            InterlockedIncrement(&Net.Sends_Dropped);
            return;
        }
        Way = Net.Table.Look_Up(Hop, Hint, Now());
        pQuestion = Way.Ask ? Take_Slot() : nullptr;
        pSlot = Way.Known ? Take_Slot() : nullptr;
        Id = ++Net.Ip_Id;
    }
    if (pQuestion) {
        Write_Arp_Request(*reinterpret_cast<formats::ArpFrame*>(pQuestion->Bytes), Net.Here, Hop);
        Hand_Down(pQuestion, sizeof(formats::ArpFrame));
    }
    if (!pSlot)
        return;
    UCHAR* const pPayload = pSlot->Bytes + sizeof(formats::DatagramHeaders);
    RtlCopyMemory(pPayload, pHeader, Header_Bytes);
    if (Data_Bytes != 0)
        RtlCopyMemory(pPayload + Header_Bytes, pData, Data_Bytes);
    Write_Datagram_Headers(*reinterpret_cast<formats::DatagramHeaders*>(pSlot->Bytes), Net.Here, Way.Card, To,
                           Record.Port.get(), Id, pPayload, Header_Bytes + Data_Bytes, nullptr, 0,
                           Udp_Checksum::Whole);
    Hand_Down(pSlot, sizeof(formats::DatagramHeaders) + Header_Bytes + Data_Bytes);
}

void Answer_Arp(const formats::ArpFrame& Request)
{
    Send_Slot* pSlot = nullptr;
    {
        const Net_Guard Guard(Net.Lock);
        if (Net.Bound)
            pSlot = Take_Slot();
    }
    if (!pSlot)
        return;
    Write_Arp_Answer(*reinterpret_cast<formats::ArpFrame*>(pSlot->Bytes), Request, Net.Here);
    Hand_Down(pSlot, sizeof Request);
}

VOID NTAPI Send_Complete(NDIS_HANDLE, PNDIS_PACKET pPacket, NDIS_STATUS)
{
    Give_Slot_Back(*reinterpret_cast<Send_Slot**>(pPacket->ProtocolReserved));
}

}  // namespace transport
