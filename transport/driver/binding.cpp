// SPDX-License-Identifier: MIT
#include "transport/driver/net.h"

namespace transport {
namespace {

// What an NDIS routine began may be complete already. NDIS binds and unbinds one card at a time.
NDIS_STATUS Await(NDIS_STATUS Status)
{
    if (Status != NDIS_STATUS_PENDING)
        return Status;
    KeWaitForSingleObject(&Net.Completed, Executive, KernelMode, FALSE, nullptr);
    return Net.Completion;
}

void Complete(NDIS_STATUS Status)
{
    Net.Completion = Status;
    KeSetEvent(&Net.Completed, IO_NO_INCREMENT, FALSE);
}

VOID NTAPI Open_Complete(NDIS_HANDLE, NDIS_STATUS Status, NDIS_STATUS)
{
    Complete(Status);
}

VOID NTAPI Close_Complete(NDIS_HANDLE, NDIS_STATUS Status)
{
    Complete(Status);
}

VOID NTAPI Request_Complete(NDIS_HANDLE, PNDIS_REQUEST, NDIS_STATUS Status)
{
    Complete(Status);
}

VOID NTAPI Reset_Complete(NDIS_HANDLE, NDIS_STATUS)
{
    // This driver resets nobody.
}

NDIS_STATUS Request(NDIS_REQUEST_TYPE Type, NDIS_OID Oid, PVOID pValue, UINT Bytes)
{
    NDIS_REQUEST Asked{};
    Asked.RequestType = Type;
    if (Type == NdisRequestQueryInformation) {
        Asked.DATA.QUERY_INFORMATION.Oid = Oid;
        Asked.DATA.QUERY_INFORMATION.InformationBuffer = pValue;
        Asked.DATA.QUERY_INFORMATION.InformationBufferLength = Bytes;
    } else {
        Asked.DATA.SET_INFORMATION.Oid = Oid;
        Asked.DATA.SET_INFORMATION.InformationBuffer = pValue;
        Asked.DATA.SET_INFORMATION.InformationBufferLength = Bytes;
    }
    NDIS_STATUS Status;
    NdisRequest(&Status, Net.Binding, &Asked);
    return Await(Status);
}

void Close()
{
    NDIS_STATUS Status;
    NdisCloseAdapter(&Status, Net.Binding);
    Await(Status);
    Net.Binding = nullptr;
}

NDIS_STATUS Open(PNDIS_STRING pCard)
{
    NDIS_MEDIUM Medium = NdisMedium802_3;
    NDIS_STATUS Status, Error;
    UINT Which;
    NdisOpenAdapter(&Status, &Error, &Net.Binding, &Which, &Medium, 1, Net.Protocol, &Net, pCard, 0, nullptr);
    return Await(Status);
}

bool Is_The_Card()
{
    Hardware_Address Card{};
    return Request(NdisRequestQueryInformation, OID_802_3_CURRENT_ADDRESS, &Card, sizeof Card) ==
               NDIS_STATUS_SUCCESS &&
           Card == Net.Here.Card;
}

// Asks the card for frames. A card that cannot show so much of a frame shows what it can, and what cannot be
// judged by that is dropped.
NDIS_STATUS Begin_Frames()
{
    ULONG Lookahead = Lookahead_Bytes_Min;
    Request(NdisRequestSetInformation, OID_GEN_CURRENT_LOOKAHEAD, &Lookahead, sizeof Lookahead);
    {
        const Net_Guard Guard(Net.Lock);
        Net.Table.Forget();
        Net.Bound = true;
    }
    ULONG Filter = NDIS_PACKET_TYPE_DIRECTED | NDIS_PACKET_TYPE_BROADCAST;
    return Request(NdisRequestSetInformation, OID_GEN_CURRENT_PACKET_FILTER, &Filter, sizeof Filter);
}

// No frame goes down any more, and those that did have come back.
void End_Frames()
{
    bool Wait;
    {
        const Net_Guard Guard(Net.Lock);
        KeClearEvent(&Net.Nothing_Out);
        Net.Bound = false;
        Wait = Net.Sends_Out != 0;
    }
    if (Wait)
        KeWaitForSingleObject(&Net.Nothing_Out, Executive, KernelMode, FALSE, nullptr);
}

// The disk driver waits for the count of disks, and copies the rest when it is there.
void Show_Disks()
{
    const UCHAR Disk_Nums = Net.Disks.Disk_Nums;
    Net.Disks.Disk_Nums = formats::disk_nums_searching;
    RtlCopyMemory(&Net.Block, &Net.Disks, sizeof Net.Block);
    KeMemoryBarrier();
    *const_cast<volatile UCHAR*>(&Net.Block.Disk_Nums) = Disk_Nums;
    Net.Disks.Disk_Nums = Disk_Nums;
}

VOID NTAPI Bind(PNDIS_STATUS pStatus, NDIS_HANDLE, PNDIS_STRING pCard, PVOID, PVOID)
{
    if (Net.Binding) {
        *pStatus = NDIS_STATUS_NOT_ACCEPTED;
        return;
    }
    // The card is not asked for its link, whose answer could be overtaken by what it tells of it.
    Net.Link_Up = true;
    *pStatus = Open(pCard);
    if (*pStatus != NDIS_STATUS_SUCCESS) {
        Net.Binding = nullptr;
        return;
    }
    *pStatus = Is_The_Card() ? Begin_Frames() : NDIS_STATUS_NOT_ACCEPTED;
    if (*pStatus == NDIS_STATUS_SUCCESS) {
        Show_Disks();
        return;
    }
    End_Frames();
    Close();
}

VOID NTAPI Unbind(PNDIS_STATUS pStatus, NDIS_HANDLE, NDIS_HANDLE)
{
    End_Frames();
    Close();
    *pStatus = NDIS_STATUS_SUCCESS;
}

VOID NTAPI Status_Of_Card(NDIS_HANDLE, NDIS_STATUS Status, PVOID, UINT)
{
    if (Status != NDIS_STATUS_MEDIA_CONNECT && Status != NDIS_STATUS_MEDIA_DISCONNECT)
        return;
    const Net_Guard Guard(Net.Lock);
    Net.Link_Up = Status == NDIS_STATUS_MEDIA_CONNECT;
}

VOID NTAPI Status_Complete(NDIS_HANDLE)
{
    // One status is one call here.
}

// Whatever becomes of the card's power, sends fail meanwhile and are repeated by those who wait for answers.
NDIS_STATUS NTAPI Pnp_Event(NDIS_HANDLE, PNET_PNP_EVENT)
{
    return NDIS_STATUS_SUCCESS;
}

}  // namespace

NDIS_STATUS Register_Protocol()
{
    NDIS_PROTOCOL_CHARACTERISTICS Ours{};
    NDIS40_PROTOCOL_CHARACTERISTICS& Ours_40 = Ours.Ndis40Chars;
    Ours_40.MajorNdisVersion = 5;
    Ours_40.OpenAdapterCompleteHandler = Open_Complete;
    Ours_40.CloseAdapterCompleteHandler = Close_Complete;
    Ours_40.SendCompleteHandler = Send_Complete;
    Ours_40.TransferDataCompleteHandler = Transfer_Complete;
    Ours_40.ResetCompleteHandler = Reset_Complete;
    Ours_40.RequestCompleteHandler = Request_Complete;
    Ours_40.ReceiveHandler = Receive_Lookahead;
    Ours_40.ReceiveCompleteHandler = Receive_Complete;
    Ours_40.StatusHandler = Status_Of_Card;
    Ours_40.StatusCompleteHandler = Status_Complete;
    Ours_40.ReceivePacketHandler = Receive_Packet;
    Ours_40.BindAdapterHandler = Bind;
    Ours_40.UnbindAdapterHandler = Unbind;
    Ours_40.PnPEventHandler = Pnp_Event;
    RtlInitUnicodeString(&Ours_40.Name, L"QRNNET");
    NDIS_STATUS Status;
    NdisRegisterProtocol(&Status, &Net.Protocol, &Ours, sizeof Ours);
    return Status;
}

}  // namespace transport
