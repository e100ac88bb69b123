// SPDX-License-Identifier: MIT
#include "driver/net/receive.h"

#include "driver/kernel/bytes.h"
#include "driver/kernel/locks.h"
#include "driver/net/answer_state.h"
#include "driver/request/queues.h"
#include "driver/state/boot_param.h"

static volatile LONG Recv_Count;

namespace {

constexpr KPRIORITY Receive_Priority = 31;
constexpr LONG Retries_Limited = 3;

using formats::WireHeader;

bool Has_Bit(ULONG Mask, ULONG Bit)
{
    return (Mask >> (Bit & 31) & 1) != 0;
}

// All handlers below run under the worker's Ack_Lock and return whether the worker is to be woken.

bool Write_Done(RW_Entry* pWorker)
{
    if (pWorker->Hdr.Kind != formats::kind_write)
        return false;
    pWorker->Frag_Mask = 0;
    return true;
}

// What a fragment says of itself holds together. A fragment that lies could complete a packet that lacks
// data.
bool Plausible_Fragment(const WireHeader* pPacket, ULONG Length)
{
    ULONG Size = pPacket->Frag_Size.get();
    ULONG Count = pPacket->Frag_Cnt.get();
    if (pPacket->Frag_Off.get() + Size > Length)
        return false;
    return Count == 0 || (Size > 0 && pPacket->Frag_Num >= 1 && pPacket->Frag_Num <= Count &&
                          Count <= formats::fragment_count(Length));
}

// Stores the fragment at its place in the worker's data. False when it does not belong there.
bool Store_Data(RW_Entry* pWorker, const WireHeader* pPacket, ULONG Bytes)
{
    if (Bytes < formats::header_bytes)
        return false;
    ULONG Offset = pPacket->Frag_Off.get();
    ULONG Size = pPacket->Frag_Size.get();
    ULONG Length = pWorker->Hdr.Length.get();
    if (!Plausible_Fragment(pPacket, Length))
        return false;
    if (pPacket->Frag_Cnt.get() == 0) {
        RtlZeroMemory(pWorker->pData, Length);
        return true;
    }
    if (Bytes < formats::header_bytes + Size)
        return false;
    RtlCopyMemory(pWorker->pData + Offset, pPacket + 1, Size);
    return true;
}

bool Read_Data(RW_Entry* pWorker, const WireHeader* pPacket, ULONG Bytes)
{
    if (pWorker->Hdr.Kind != formats::kind_read && pWorker->Hdr.Kind != formats::kind_sync_read)
        return false;
    if (!Store_Data(pWorker, pPacket, Bytes))
        return false;
    ULONG Number = pPacket->Frag_Num;
    ULONG Count = pPacket->Frag_Cnt.get() & 0xFF;
    ULONG This_Fragment = 1u << ((Number - 1) & 31);
    ULONG All_Of_Packet = (1u << (Count & 31)) - 1;
    pWorker->Frag_Mask = pWorker->Frag_Mask & (This_Fragment ^ All_Of_Packet);
    bool Gap = pWorker->Frag_Mask != 0 && Number >= 2 && Has_Bit(pWorker->Frag_Mask, Number - 2);
    pWorker->Ack_State = Next_Answer(pWorker->Ack_State, Gap ? Answer::Data_Gap : Answer::Data);
    return Gap || pWorker->Frag_Mask == 0;
}

ULONG Missing_At_Server(const WireHeader* pPacket)
{
    return static_cast<USHORT>(~pPacket->Recv_Mask.get());
}

bool Acknowledged(RW_Entry* pWorker, const WireHeader* pPacket)
{
    ULONG Missing = Missing_At_Server(pPacket);
    if (pWorker->Hdr.Kind == formats::kind_write && Missing != 0)
        pWorker->Frag_Mask = Missing;
    pWorker->Ack_State = Next_Answer(pWorker->Ack_State, Missing ? Answer::Has_Missing : Answer::Has_All);
    return Missing != 0;
}

void Limit_Retries(RW_Entry* pWorker)
{
    if (static_cast<ULONG>(pWorker->Retry_Left) > static_cast<ULONG>(Retries_Limited))
        pWorker->Retry_Left = Retries_Limited;
}

// The packet answers what the worker has in flight.
bool Matches(const RW_Entry* pWorker, const WireHeader* pPacket)
{
    auto Match_Part = [](const WireHeader* pHeader) {
        return reinterpret_cast<const UCHAR*>(pHeader) + formats::match_offset;
    };
    return pWorker->Frag_Mask != 0 &&
           Bytes_Equal(pPacket->Disk_Id, pWorker->Hdr.Disk_Id, sizeof pPacket->Disk_Id) &&
           Bytes_Equal(Match_Part(pPacket), Match_Part(&pWorker->Hdr), formats::match_bytes);
}

bool Take_Answer(RW_Entry* pWorker, const WireHeader* pPacket, ULONG Bytes)
{
    if (pPacket->Kind == formats::kind_acknowledge)
        return Acknowledged(pWorker, pPacket);
    if (pPacket->Sub_Code == formats::sub_request && pPacket->Kind == formats::kind_write_done)
        return Write_Done(pWorker);
    if (pPacket->Sub_Code == formats::sub_request && pPacket->Kind == formats::kind_read_data)
        return Read_Data(pWorker, pPacket, Bytes);
    if (pPacket->Sub_Code == formats::sub_retry_limit && pPacket->Kind == formats::kind_retry_limit)
        Limit_Retries(pWorker);
    return false;
}

void Route_Answer(const WireHeader* pPacket, ULONG Bytes)
{
    RW_Entry* pWorker = pRW_Tbl[pPacket->Worker_Byte & formats::worker_index_mask];
    if (!pWorker)
        return;
    bool Wake;
    bool Matched;
    {
        Spin_Guard Guard(pWorker->Ack_Lock);
        Matched = Matches(pWorker, pPacket);
        Wake = Matched && Take_Answer(pWorker, pPacket, Bytes);
    }
    // The sequence number and the packet's index matched, so the packet's own are the worker's.
    if (Matched && pPacket->Kind == formats::kind_acknowledge)
        DbgPrint("\nQRN SCSI: Recv ACK: %02X %X %5d-%02X %04X", pWorker->Index(),
                 pPacket->Sub_Code | pPacket->Kind << 8, pPacket->Seq.get(), pPacket->Pkt_Index,
                 Missing_At_Server(pPacket));
    if (Wake)
        KeSetEvent(&pWorker->Ack_Event, IO_NO_INCREMENT, FALSE);
}

bool Is_Poll(const WireHeader* pPacket)
{
    return Bytes_Equal(pPacket, formats::poll_mark, sizeof formats::poll_mark);
}

void Receive_Packet(Poll_Handler Answer_Poll)
{
    PVOID pHeader = nullptr;
    ULONG Bytes = Ndis_Handover.QRN_Recv(&pHeader);
    if (Bytes >= formats::request_bytes) {
        auto pPacket = static_cast<const WireHeader*>(pHeader);
        if (Is_Poll(pPacket))
            Answer_Poll(static_cast<UCHAR*>(pHeader));
        else
            Route_Answer(pPacket, Bytes);
    }
    if (pHeader)
        Ndis_Handover.QRN_Release(pHeader);
}

}  // namespace

VOID NTAPI QRN_Recv_Thread(PVOID Context)
{
    DbgPrint("\nQRN SCSI: QRN_Recv_Thread %d Created", InterlockedExchangeAdd(&Recv_Count, 1));
    KeWaitForSingleObject(&Start_Event, Executive, KernelMode, FALSE, nullptr);
    DbgPrint("\nQRN SCSI: QRN_Recv_Thread WaitEvent OK");
    KeSetPriorityThread(KeGetCurrentThread(), Receive_Priority);
    while (Ndis_Handover.QRN_Recv && Ndis_Handover.QRN_Release)
        Receive_Packet(reinterpret_cast<Poll_Handler>(Context));
    // An image can have started the threads without a transport; there is nothing to receive then.
    DbgPrint("\nQRN SCSI: QRN_Recv_Thread End:%d", Recv_Count);
    InterlockedDecrement(&Recv_Count);
    PsTerminateSystemThread(STATUS_SUCCESS);
}
