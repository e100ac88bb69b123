// SPDX-License-Identifier: MIT
#include "driver/net/exchange.h"

#include "driver/kernel/bytes.h"
#include "driver/kernel/delay.h"
#include "driver/kernel/locks.h"
#include "driver/net/answer_state.h"
#include "driver/net/machine_reset.h"
#include "driver/net/packet.h"
#include "driver/net/servers.h"
#include "driver/request/channel.h"
#include "driver/request/holds.h"
#include "driver/state/image_version.h"
#include "driver/state/settings.h"
#include "driver/state/stop_level.h"

namespace {

constexpr ULONG All_Fragments = 0xFFFFFFFF;

constexpr LONG Wait_Sent_Ms = 110;      // after every send or resend
constexpr LONG Wait_Progress_Ms = 55;   // after an answer
constexpr LONG Wait_Silence_Ms = 1000;  // after a wait without news

// A server that answers, but brings the packet no further, is waited for and sent to this often in a row
// before it counts as silent.
constexpr ULONG Idle_Rounds_Max = 200;

constexpr LONG Retries_Per_Min = 60;
constexpr LONG Brief_Retries = 8;  // the 9th time-out, after 10 s, is the last
constexpr LONG Last_Retries = 3;   // the time-out at which a packet pauses once more
constexpr LONG Last_Retries_Pause_Ms = 1000;
constexpr ULONG Shutdown_Retries_System = 21;
constexpr ULONG Shutdown_Retries = 3;
constexpr LONG System_Disk_Pause_Ms = 2100;
constexpr LONG Trans_Flag_Period_Mask = 0x1F;

enum class Wait_End { Complete, Resend, Time_Out };
enum class After_Time_Out { Resend, Complete, Failed };

// Counts the waits that left what is outstanding of a packet as it was.
class Idle_Rounds {
public:
    // One more wait has ended. True when there have been too many; then it counts from 0 again.
    bool Too_Many(ULONG Outstanding)
    {
        Rounds_ = Outstanding == Outstanding_ ? Rounds_ + 1 : 1;
        Outstanding_ = Outstanding;
        if (Rounds_ < Idle_Rounds_Max)
            return false;
        Rounds_ = 0;
        return true;
    }

    // Silence has been counted as such.
    void Begin_Anew() { Rounds_ = 0; }

private:
    ULONG Outstanding_ = 0;  // never of a packet that is waited for
    ULONG Rounds_ = 0;
};

LONG Retry_Budget(const RW_Entry* pEntry)
{
    if (pEntry->Brief)
        return Brief_Retries;
    return Retries_Per_Min * pEntry->Setup.Disk_Parms.Retry_Mins - 1;
}

bool Is_Mirrored(const RW_Entry* pEntry)
{
    return (pEntry->Hdr.Disk_Id[2] & formats::disk_id_mirror) != 0;
}

USHORT Operation(const RW_Entry* pEntry)
{
    return static_cast<USHORT>(pEntry->Hdr.Sub_Code | pEntry->Hdr.Kind << 8);
}

void Set_Outstanding(RW_Entry* pEntry, ULONG Mask)
{
    Spin_Guard Guard(pEntry->Ack_Lock);
    pEntry->Frag_Mask = Mask;
}

// Time-outs that the packet had at this server before its worker was let go.
LONG Spent_Here(const RW_Entry* pEntry)
{
    LONG Here = Is_Slave(pEntry->Setup.pServer) ? -pEntry->Spent : pEntry->Spent;
    return Here > 0 ? Here : 0;
}

void Spend(RW_Entry* pEntry, LONG Time_Outs)
{
    pEntry->Spent = Is_Slave(pEntry->Setup.pServer) ? -Time_Outs : Time_Outs;
}

// From here on answers to the packet count. A wake-up left over from the packet before is forgotten.
void Begin_Packet(RW_Entry* pEntry)
{
    KeClearEvent(&pEntry->Ack_Event);
    LONG Budget = Retry_Budget(pEntry), Spent = Spent_Here(pEntry);
    Spin_Guard Guard(pEntry->Ack_Lock);
    pEntry->Frag_Mask = All_Fragments;
    pEntry->Retry_Left = Budget > Spent ? Budget - Spent : Smaller<LONG>(Budget, 0);
}

void Send_And_Expect(RW_Entry* pEntry)
{
    {
        Spin_Guard Guard(pEntry->Ack_Lock);
        pEntry->Ack_State = static_cast<ULONG>(Answer::None);
    }
    Send_Packet(pEntry);
}

NTSTATUS Wait_For_Answer(RW_Entry* pEntry, LONG Wait_Ms)
{
    LARGE_INTEGER Time = Relative_Ms(Wait_Ms);
    return KeWaitForSingleObject(&pEntry->Ack_Event, Executive, KernelMode, FALSE, &Time);
}

// Waits until the packet just sent is complete, should be sent again, or has timed out.
Wait_End Wait_For_Packet(RW_Entry* pEntry, Idle_Rounds& Idle)
{
    LONG Wait_Ms = Wait_Sent_Ms;
    ULONG Seen = static_cast<ULONG>(Answer::None);
    for (;;) {
        NTSTATUS Status = Wait_For_Answer(pEntry, Wait_Ms);
        ULONG Outstanding = pEntry->Frag_Mask;
        if (Outstanding == 0)
            return Wait_End::Complete;
        if (Idle.Too_Many(Outstanding))
            return Wait_End::Time_Out;
        ULONG State = pEntry->Ack_State;
        bool News = State != Seen;
        Seen = State;
        Answer Kind = Answer_Kind(State);
        if (News || Kind == Answer::Has_All) {
            if (Kind == Answer::Has_Missing)
                return Wait_End::Resend;
            Wait_Ms = Wait_Progress_Ms;
            if (Kind == Answer::Data_Gap)
                Send_Status_Query(pEntry);
        } else if (Status == STATUS_TIMEOUT) {
            if (Wait_Ms == Wait_Silence_Ms) {
                Idle.Begin_Anew();
                return Wait_End::Time_Out;
            }
            Wait_Ms = Wait_Silence_Ms;
            Send_Status_Query(pEntry);
        }
        // Otherwise the wake-up was meant for the packet before.
    }
}

// A mirrored disk has had enough of the server that the packet goes to. True when the packet counts as
// complete: the slave is given up, and the main server has it.
bool Leave_Server(RW_Entry* pEntry)
{
    if (Is_Slave(pEntry->Setup.pServer)) {
        DbgPrint("\nQRN SCSI: Slave Server Error");
        Drop_Slave(pEntry->Lun);
        return true;
    }
    if (Promote_Slave(pEntry->Lun))
        DbgPrint("\nQRN SCSI: Main Server Error, Try Use Slave");
    return false;
}

// The slave that this copy is meant for is no longer there: another worker dropped or promoted it.
bool Slave_Gone(const RW_Entry* pEntry)
{
    return Is_Slave(pEntry->Setup.pServer) && !Server_Copy(pEntry->Setup.pServer).names_a_server();
}

void Limit_Retries_At_Shutdown(RW_Entry* pEntry)
{
    if (Stop_Level < Stop_Shutdown)
        return;
    ULONG Limit = pEntry->Lun == 0 ? Shutdown_Retries_System : Shutdown_Retries;
    Spin_Guard Guard(pEntry->Ack_Lock);
    if (static_cast<ULONG>(pEntry->Retry_Left) > Limit)
        pEntry->Retry_Left = static_cast<LONG>(Limit);
}

bool Is_System_Read(const RW_Entry* pEntry)
{
    return pEntry->Lun == 0 && pEntry->Hdr.Sub_Code == formats::sub_request &&
           pEntry->Hdr.Kind == formats::kind_read;
}

// The budget is used up. True when the packet has failed; the system disk of a network boot is waited for
// without end, and a machine that loses it during shutdown is reset.
bool Gives_Up(RW_Entry* pEntry)
{
    DbgPrint("\nQRN SCSI: Time End: %02X %d %X, %d %d", pEntry->Index(), pEntry->Lun, Operation(pEntry),
             Boot_Param.Boot_Mode.get(), Stop_Level);
    if (Boot_Param.Boot_Mode.get() != formats::boot_mode_network || !Is_System_Read(pEntry))
        return true;
    if (Stop_Level >= Stop_Shutdown)
        Machine_Reset();
    Sleep_Ms(System_Disk_Pause_Ms);
    return false;
}

After_Time_Out Time_Out(RW_Entry* pEntry)
{
    LONG Budget = Retry_Budget(pEntry);
    Disk_Is_Silent(pEntry->Lun);
    InterlockedIncrement(&pEntry->Setup.pCounters->TimeOuts);
    // A port driver that feeds the disk one request at a time may hold the shutdown back behind this one.
    Chan_Send(static_cast<Hw_Ext*>(pEntry->pNotify), nullptr, pEntry->Lun);
    DbgPrint("\nQRN SCSI: Time Out: %02X %d %X %08X %5d-%02X %08X Retrys:%d %d", pEntry->Index(), pEntry->Lun,
             Operation(pEntry), pEntry->Sector, pEntry->Hdr.Seq.get(), pEntry->Hdr.Pkt_Index,
             pEntry->Frag_Mask, pEntry->Retry_Left, Budget);
    if ((pEntry->Retry_Left & Trans_Flag_Period_Mask) == 0 && Ndis_Handover.pTrans_Flag)
        *Ndis_Handover.pTrans_Flag = 0;
    if (Is_Write(pEntry))
        Set_Outstanding(pEntry, All_Fragments);
    if (Is_Mirrored(pEntry)) {
        if (Slave_Gone(pEntry))
            return After_Time_Out::Complete;
        if (Budget - pEntry->Retry_Left == HOT_RETRYS && Leave_Server(pEntry))
            return After_Time_Out::Complete;
    }
    if (pEntry->Retry_Left == Last_Retries)
        Sleep_Ms(Last_Retries_Pause_Ms);
    Limit_Retries_At_Shutdown(pEntry);
    if (pEntry->Retry_Left == 0 && Gives_Up(pEntry))
        return After_Time_Out::Failed;
    if (Is_System_Read(pEntry) && !pEntry->Cut_Short && Reads_May_End()) {
        pEntry->Cut_Short = true;
        return After_Time_Out::Failed;
    }
    if (pEntry->Hold == Hold_Kind::Loose && Must_Let_Go(pEntry->Lun)) {
        Spend(pEntry, Budget < 0 ? 0 : Budget - pEntry->Retry_Left + 1);
        pEntry->Hold = Hold_Kind::Let_Go;
        Turn_Ends(pEntry->Lun);
        return After_Time_Out::Failed;
    }
    Spin_Guard Guard(pEntry->Ack_Lock);
    pEntry->Retry_Left = pEntry->Retry_Left - 1;
    return After_Time_Out::Resend;
}

// What one server has sent or taken of a packet says nothing about another: when the disk's server has
// changed since, the packet starts from nothing.
void Follow_Server(RW_Entry* pEntry, formats::ServerRecord& Server)
{
    formats::ServerRecord Now = Server_Copy(pEntry->Setup.pServer);
    if (Bytes_Equal(&Now, &Server, sizeof Now))
        return;
    Server = Now;
    Set_Outstanding(pEntry, All_Fragments);
}

// Brings the packet to the server at pServer; false when it has failed for good. Afterwards no answer to
// it counts any more.
bool Deliver(RW_Entry* pEntry)
{
    Idle_Rounds Idle;
    formats::ServerRecord Server = Server_Copy(pEntry->Setup.pServer);
    Begin_Packet(pEntry);
    for (;;) {
        Follow_Server(pEntry, Server);
        Send_And_Expect(pEntry);
        Wait_End End = Wait_For_Packet(pEntry, Idle);
        if (End == Wait_End::Complete) {
            Disk_Answers(pEntry->Lun);
            if (Spent_Here(pEntry) != 0)
                pEntry->Spent = 0;
            if (Is_System_Read(pEntry) && pEntry->Sector != 0)
                Claim_Version(Version_Server);
            return true;
        }
        if (End == Wait_End::Resend)
            continue;
        After_Time_Out Next = Time_Out(pEntry);
        if (Next == After_Time_Out::Resend)
            continue;
        Set_Outstanding(pEntry, 0);
        return Next == After_Time_Out::Complete;
    }
}

void Complement_Seq(RW_Entry* pEntry)
{
    pEntry->Hdr.Seq.set(static_cast<USHORT>(~pEntry->Hdr.Seq.get()));
}

// The second half of a mirrored write: the copy, with complemented Seq, to the slave server. When the
// slave took over while the packet was under way, the server that completed it may be the lost one, so
// the copy goes to the main record, where the former slave stands now.
bool Deliver_Copy(RW_Entry* pEntry, bool Promoted_Before)
{
    Complement_Seq(pEntry);
    bool Done = true;
    pEntry->Setup.pServer = &Boot_Param.Slave_Server[pEntry->Lun];
    if (Server_Copy(pEntry->Setup.pServer).names_a_server())
        Done = Deliver(pEntry);
    pEntry->Setup.pServer = &Boot_Param.Main_Server[pEntry->Lun];
    if (Done && !Promoted_Before && Slave_Promoted(pEntry->Lun))
        Done = Deliver(pEntry);
    Complement_Seq(pEntry);
    return Done;
}

bool Exchange_Packet(RW_Entry* pEntry)
{
    if (!Is_Write(pEntry) || !Is_Mirrored(pEntry))
        return Deliver(pEntry);
    bool Promoted_Before = Slave_Promoted(pEntry->Lun);
    return Deliver(pEntry) && Deliver_Copy(pEntry, Promoted_Before);
}

// The header of one packet of the run. Sector numbers go out sign-extended.
void Place_Packet(RW_Entry* pEntry, ULONG Sector, LONG Bytes)
{
    pEntry->Hdr.Byte_Offset.set(
        static_cast<ULONGLONG>(LONGLONG{static_cast<LONG>(Sector)} * formats::sector_bytes));
    pEntry->Hdr.Length.set(static_cast<USHORT>(Bytes));
}

// Several runs of one chunk may go to the network one after another, those of a read under one tag. Where a
// run begins in the chunk, in sectors, tells its packets apart: the low five bits stand in Worker_Byte, the
// rest adds to the Pkt_Index of a read; a write is tagged afresh for each run and counts from 0. Both are put
// back at the end of the scope.
class Run_Mark {
public:
    explicit Run_Mark(RW_Entry* pEntry)
        : Hdr_(pEntry->Hdr), Worker_Byte_(Hdr_.Worker_Byte), Pkt_Index_(Hdr_.Pkt_Index)
    {
        ULONG Secs = pEntry->Sec_In_Chunk();
        Hdr_.Worker_Byte = static_cast<UCHAR>(Worker_Byte_ + Secs * formats::worker_sector_unit);
        if (!Is_Write(pEntry))
            Hdr_.Pkt_Index = static_cast<UCHAR>(Pkt_Index_ + (Secs & ~formats::worker_sector_mask));
    }
    ~Run_Mark()
    {
        Hdr_.Worker_Byte = Worker_Byte_;
        Hdr_.Pkt_Index = Pkt_Index_;
    }
    Run_Mark(const Run_Mark&) = delete;
    Run_Mark& operator=(const Run_Mark&) = delete;

private:
    formats::WireHeader& Hdr_;
    UCHAR Worker_Byte_;
    UCHAR Pkt_Index_;
};

}  // namespace

LONG Net_Send_Wait(RW_Entry* pEntry, LONG Bytes)
{
    if (!Ndis_Handover.QRN_Send)
        return -1;  // a machine without transport will never have one
    if (pEntry->Hold == Hold_Kind::Let_Go)
        return -1;
    UCHAR* pStart = pEntry->pData;
    Run_Mark Mark(pEntry);
    ULONG Sector = pEntry->Sector;
    LONG Result = 0;
    for (LONG Left = Bytes; Left > 0;) {
        LONG Packet_Bytes = Smaller(static_cast<LONG>(pEntry->Setup.Pkt_Size), Left);
        Place_Packet(pEntry, Sector, Packet_Bytes);
        if (!Exchange_Packet(pEntry)) {
            Result = -1;
            break;
        }
        pEntry->pData += Packet_Bytes;
        Sector += static_cast<ULONG>(Packet_Bytes >> 9);
        ++pEntry->Hdr.Pkt_Index;
        Left -= Packet_Bytes;
        Result += Packet_Bytes;
    }
    pEntry->pData = pStart;
    return Result;
}
