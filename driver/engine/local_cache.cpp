// SPDX-License-Identifier: MIT
#include "driver/engine/local_cache.h"

#include "driver/cache/cache_setup.h"
#include "driver/kernel/locks.h"
#include "driver/net/exchange.h"
#include "driver/request/holds.h"
#include "driver/request/queues.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"
#include "driver/state/memory_probe.h"

using formats::NegotiationReply;

// The query names this workstation's memory in the place of a tag. Bit 15 is never part of it.
static USHORT Memory_Tag()
{
    constexpr ULONG Size_Mask = 0xFFFF7FFF;
    LONG MB = Phys_Mem_Probe();
    ULONG Size_MB = static_cast<ULONG>(MB < 0 ? -MB : MB);
    return static_cast<USHORT>((Size_MB & Size_Mask) ^ Boot_Param.Tag_Key.get());
}

// Asks the disk's server: a read of the sector before the disk. No answer is one of zeros.
static void Query(RW_Entry* pEntry, PVOID pNotify, NegotiationReply& Reply)
{
    formats::WireHeader& Hdr = pEntry->Hdr;
    UCHAR Sub_Code = Hdr.Sub_Code;
    UCHAR Kind = Hdr.Kind;
    pEntry->Sector = 0;
    Hdr.Sub_Code = formats::sub_request;
    Hdr.Kind = formats::kind_read;
    pEntry->pData = reinterpret_cast<UCHAR*>(&Reply);
    Hdr.Pkt_Index = 0;
    Hdr.Tag.set(Memory_Tag());
    pEntry->Hold = Hold_Kind::Loose;
    pEntry->pNotify = pNotify;
    pEntry->Spent = Local_Cache[pEntry->Lun].Spent;
    // What the local disk holds is not kept waiting for a server that may never come.
    pEntry->Cut_Short = false;
    pEntry->Brief = Images_Take_Part();
    if (Net_Send_Wait(pEntry, sizeof Reply) <= 0)
        RtlZeroMemory(&Reply, sizeof Reply);
    pEntry->Brief = false;
    Hdr.Sub_Code = Sub_Code;
    Hdr.Kind = Kind;
}

static void Print_Reply(const NegotiationReply& Reply)
{
    char Text[sizeof Reply.Text + 1];
    RtlCopyMemory(Text, Reply.Text, sizeof Reply.Text);
    Text[sizeof Reply.Text] = 0;
    DbgPrint("\nQRN Local_Cache Info: %08X %d %s", Reply.Cache_Word.get(), Reply.Value.get(), Text);
}

// False when other disks needed the worker before the server had answered.
static bool Negotiate(RW_Entry* pEntry, PVOID pNotify, Local_Cache_Record& Record)
{
    NegotiationReply Reply;
    Query(pEntry, pNotify, Reply);
    Record.Spent = pEntry->Spent;
    if (pEntry->Hold == Hold_Kind::Let_Go)
        return false;
    Print_Reply(Reply);
    bool Wanted = (pEntry->Setup.Disk_Parms.Disk_Flags & formats::disk_flag_ram_cache) != 0;
    if (Wanted && Reply.Cache_Word.get() != 0 && !Record.pMC_Write)
        Record.pMC_Write = QRN_MC_Init(Reply.Cache_Word.get() & 0xFFFF, pEntry->Lun);
    Record.State = Record.pMC_Write ? Cache_In_Use : Cache_None;
    return true;
}

// Nobody waits for another's negotiation: the workers are for the other disks meanwhile.
static void Settle(RW_Entry* pEntry, PVOID pNotify, Local_Cache_Record& Record)
{
    if (!May_Hold(pEntry->Lun) || !Mutex_Try(Record.Lock))
        return;
    bool Asked = false, Settled = false;
    bool Known = Record.State != Cache_Unknown;
    if (!Known && Try_Hold(pEntry->Lun)) {
        Asked = true;
        Settled = Negotiate(pEntry, pNotify, Record);
        Hold_End(pEntry->Lun);
    }
    Mutex_Give(Record.Lock);
    if (Settled)
        DbgPrint("\nQRN Local Init: Lun:%d %d %X %X", pEntry->Lun, Record.State, Record.pMC_Write, 0);
    if (Known || Asked)
        Unpark_Records();
}

LONG Local_Init(RW_Entry* pEntry, PVOID pNotify)
{
    Local_Cache_Record& Record = Local_Cache[pEntry->Lun];
    if (Record.State == Cache_Unknown)
        Settle(pEntry, pNotify, Record);
    pEntry->Setup.pMC_Write = Record.pMC_Write;
    return Record.State;
}
