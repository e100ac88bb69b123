// SPDX-License-Identifier: MIT
#include "driver/net/packet.h"

#include "driver/kernel/bytes.h"
#include "driver/net/servers.h"
#include "driver/state/boot_param.h"

void Pkt_Init(RW_Entry* pEntry, ULONG Lun, ULONG Write)
{
    const formats::Disk_Info& Disk = Boot_Param.Disks[Lun];
    Pkt_Setup& Setup = pEntry->Setup;
    formats::WireHeader& Hdr = pEntry->Hdr;
    Setup.pServer = &Boot_Param.Main_Server[Lun];
    pEntry->Lun = Lun;
    RtlCopyMemory(Hdr.Disk_Id, Disk.Disk_Id, sizeof Hdr.Disk_Id);
    RtlCopyMemory(Hdr.Disk_Parm, Disk.Disk_Parm, sizeof Hdr.Disk_Parm);
    Setup.Disk_Parms = {Disk.Read_KB, Disk.Write_KB, Disk.Disk_Flags, Disk.Retry_Mins};
    Hdr.Sub_Code = formats::sub_request;
    if (Write) {
        Setup.Pkt_Size = Disk.Write_KB * 1024u;
        Setup.Split_Size =
            (Disk.Disk_Flags & formats::disk_flag_split_writes) ? Setup.Pkt_Size : Bounce_Bytes;
        Setup.pCounters = &Lun_Stats[Lun].Wr;
        Hdr.Kind = formats::kind_write;
    } else {
        Setup.Pkt_Size = Setup.Split_Size = Disk.Read_KB * 1024u;
        Setup.pCounters = &Lun_Stats[Lun].Rd;
        Hdr.Kind = formats::kind_read;
    }
}

void Pkt_Tag(RW_Entry* pEntry, ULONG Slot_Index, LONG Bytes)
{
    constexpr ULONG Slot_Mark = 8;
    pEntry->Hdr.Pkt_Index = 0;
    ULONG Slot = (Boot_Param.Boot_Flags & formats::boot_flag_tag_slot) ? Slot_Index | Slot_Mark
                                                                       : (Slot_Index - 4 * pEntry->Lun) & 7;
    ULONG Tag = (static_cast<ULONG>(Bytes >> 8) | Slot << 12) ^ Boot_Param.Tag_Key.get();
    pEntry->Hdr.Tag.set(static_cast<USHORT>(Tag));
    Seq_Counters* pCounters = pEntry->Setup.pCounters;
    InterlockedExchangeAdd(&pCounters->Secs, Bytes >> 9);
    pEntry->Hdr.Seq.set(static_cast<USHORT>(InterlockedIncrement(&pCounters->Seq)));
}

static void Set_Recv_Mask(RW_Entry* pEntry)
{
    pEntry->Hdr.Recv_Mask.set(static_cast<USHORT>(~pEntry->Frag_Mask));
}

static void Send_Request(RW_Entry* pEntry, const formats::ServerRecord& Server)
{
    Send_To(Server, &pEntry->Hdr, formats::request_bytes, pEntry, 0);
}

static void Send_Fragments(RW_Entry* pEntry, const formats::ServerRecord& Server)
{
    formats::WireHeader& Hdr = pEntry->Hdr;
    ULONG Length = Hdr.Length.get();
    Hdr.Frag_Cnt.set(static_cast<USHORT>(formats::fragment_count(Length)));
    Hdr.Zero = 0;
    Hdr.Frag_Num = 0;
    for (ULONG Offset = 0; Offset < Length; Offset += formats::fragment_bytes_max) {
        ULONG Size = Smaller<ULONG>(formats::fragment_bytes_max, Length - Offset);
        ++Hdr.Frag_Num;
        Hdr.Frag_Size.set(static_cast<USHORT>(Size));
        Hdr.Frag_Off.set(static_cast<USHORT>(Offset));
        if (pEntry->Frag_Mask & 1u << (Hdr.Frag_Num - 1))
            Send_To(Server, &Hdr, formats::header_bytes, pEntry->pData + Offset, Size);
    }
}

void Send_Packet(RW_Entry* pEntry)
{
    formats::ServerRecord Server = Server_Copy(pEntry->Setup.pServer);
    Set_Recv_Mask(pEntry);
    if (Is_Write(pEntry))
        Send_Fragments(pEntry, Server);
    else
        Send_Request(pEntry, Server);
}

void Send_Status_Query(RW_Entry* pEntry)
{
    if (Boot_Param.Rack_Level.get() < formats::rack_level_status_query)
        return;
    ++pEntry->Hdr.Sub_Code;
    Set_Recv_Mask(pEntry);
    Send_Request(pEntry, Server_Copy(pEntry->Setup.pServer));
    --pEntry->Hdr.Sub_Code;
}
