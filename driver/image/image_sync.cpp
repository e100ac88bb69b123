// SPDX-License-Identifier: MIT
#include "driver/image/image_sync.h"

#include "driver/block/chunk_key.h"
#include "driver/block/sector_flags.h"
#include "driver/image/image_setup.h"
#include "driver/image/net_image.h"
#include "driver/kernel/bytes.h"
#include "driver/kernel/delay.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/objects.h"
#include "driver/state/image_version.h"

using formats::Entry_64K;
using formats::ImageHeader;

PVOID volatile pSync_State;
volatile formats::SyncStats QRN_Sync_Stats;
static KSPIN_LOCK Sync_Lock;

namespace {

constexpr LONG Stop_Polls = 30;
constexpr LONG Stop_Poll_Ms = 100;

constexpr ULONG Report_Secs = 32;
constexpr ULONGLONG Ticks_Per_Sec = 10000000;
constexpr ULONG Tag_Unknown = 1;  // of a server's chunk that has sectors and no tag that can be used
// Chunks that were handled since the server's image was last seen unchanged.
constexpr ULONG Unproven_Max = 16;

// Start of the current interval of progress, for all runs of a start.
ULONGLONG Progress_Clock;
bool Progress_Clock_Taken;

class Sync_Run {
public:
    Sync_Run(Sync_State* pState, QRNH_IMG_RW* pLocal, QRNH_IMG_RW* pSource)
        : pState_(pState), pLocal_(pLocal), pSource_(pSource), L_(pLocal->Header()), S_(pSource->Header())
    {
    }

    // The state tells that the run goes on, or that it was stopped before it began.
    void Go()
    {
        pLocal_->Keep_Tags = true;
        if (!Find_Start())
            pState_->Status = Sync_Failed;
        Last_ = pState_->Chunk;
        Begin_Progress();
        Begin_Stats();
        while (pState_->Status == Sync_Running && pState_->Chunk < Img_Chunks(L_)) {
            Report_Progress();
            if (!Handle_Chunk())
                pState_->Status = Sync_Failed;
        }
        // The last chunk's last sector lies in what would be the next chunk's run.
        if (pState_->Status == Sync_Running && !Mend_Chunk_Before())
            pState_->Status = Sync_Failed;
        if (pState_->Status == Sync_Running && !Source_Unchanged())
            pState_->Status = Sync_Failed;
        Finish();
    }

private:
    bool Find_Start();
    static void Begin_Progress();
    void Begin_Stats();
    void Report_Progress();
    bool Handle_Chunk();
    bool Source_Tag();
    bool Prepare_Chunk(bool& Copy);
    bool Copy_Chunk();
    bool Copy_Run(ULONGLONG Sector, LONG Left);
    bool Mend_Chunk_Before();
    bool Begin_Anew();
    bool Source_Unchanged();
    void Finish();

    Sync_State* pState_;
    QRNH_IMG_RW* pLocal_;
    QRNH_IMG_RW* pSource_;
    ImageHeader& L_;
    ImageHeader& S_;
    ULONG Last_ = 0;      // chunk at which the current interval of progress began
    ULONG Unproven_ = 0;  // chunks handled beyond Sync_Pos
    bool Begun_Anew_ = false;
};

// Whether the local image is a copy of this server's image at all, and where to go on. Reads through it are
// answered from here on, below its Sync_Pos.
bool Sync_Run::Find_Start()
{
    Mutex_Guard Guard(pLocal_->Map_Lock);
    bool Same_Shift = (L_.Sec_Shift.get() != 0) == (S_.Sec_Shift.get() != 0);
    bool Good = true;
    if (L_.CreateTime.get() != S_.CreateTime.get() || !Same_Shift ||
        pLocal_->Image()->Map_Is == Map_State::Lost) {
        Good = pLocal_->Renew(S_.Size.get(), S_.Sec_Shift.get());
    } else if (L_.Sync_Tag.get() != S_.ModifyTag.get() || L_.Sync_Pos.get() >= Img_Chunks(L_)) {
        DbgPrint("\nQRNH_Img_Sync: Sync_Tag %X!=%X", L_.Sync_Tag.get(), S_.ModifyTag.get());
        Mutex_Guard Header_Guard(pLocal_->Image()->Hdr_Lock);
        Good = pLocal_->Image()->Restart();
    } else {
        pState_->Chunk = L_.Sync_Pos.get();
    }
    pLocal_->Trust.Check_Begins();
    return Good;
}

void Sync_Run::Begin_Progress()
{
    if (!Progress_Clock_Taken)
        Progress_Clock = KeQueryInterruptTime();
    Progress_Clock_Taken = true;
}

void Sync_Run::Begin_Stats()
{
    QRN_Sync_Stats.Chunks = Img_Chunks(L_);
    QRN_Sync_Stats.First_Chunk = pState_->Chunk;
    QRN_Sync_Stats.Chunk = pState_->Chunk;
    QRN_Sync_Stats.Start_Time = Progress_Clock;
    QRN_Sync_Stats.State = formats::sync_running;
}

void Sync_Run::Report_Progress()
{
    ULONG Chunk = pState_->Chunk;
    ULONG Total = Img_Chunks(L_);
    ULONG Secs = static_cast<ULONG>((KeQueryInterruptTime() - Progress_Clock) / Ticks_Per_Sec) + 1;
    if (Secs < Report_Secs && Chunk < Total - 1)
        return;
    ULONG Bytes = (Chunk - Last_) * formats::chunk_bytes;
    DbgPrint("\nQRNH_IMG_SYNC: %04X-%04X(%X) %5dM %3dS %dK/S", Last_, Chunk, Total, Bytes >> 20, Secs,
             (Bytes >> 10) / Secs);
    Last_ = Chunk;
    Progress_Clock = KeQueryInterruptTime();
}

// Src_Tag becomes the server's tag of the chunk; false when it cannot be told.
bool Sync_Run::Source_Tag()
{
    const Entry_64K* pEntry = pSource_->Map_Find(false, pState_->Chunk);
    if (!pEntry && pSource_->Find_Failed())
        return false;
    pState_->Src_Tag = pEntry ? pEntry->ModifyTag.get() : 0;
    if (pEntry && pState_->Src_Tag == 0 && SecFlag_Miss_Len(pEntry->SecFlag, 0, Chunk_64K) != Chunk_64K) {
        DbgPrint("\nQRNH_IMG_SYNC: pNet_64K->ModifyTag Error With SecFlag");
        pState_->Src_Tag = Tag_Unknown;
    }
    // A local chunk that was left half filled must not pass for a copy of this one.
    if (pState_->Src_Tag == Tag_In_Work)
        pState_->Src_Tag = Tag_Unknown;
    return true;
}

// Gives up what the local chunk holds unless it is in step with the server's.
bool Sync_Run::Prepare_Chunk(bool& Copy)
{
    Mutex_Guard Guard(pLocal_->Map_Lock);
    pState_->Work = pLocal_->Entry_Tag(pState_->Chunk);
    if (pLocal_->Find_Failed())
        return false;
    Copy = pState_->Src_Tag != 0 && pState_->Src_Tag != pState_->Work;
    return pState_->Src_Tag == pState_->Work || pLocal_->Entry_Reset(pState_->Chunk);
}

// A map that cannot be followed will not mend by itself, and all that it held is on the server.
bool Sync_Run::Begin_Anew()
{
    Mutex_Guard Guard(pLocal_->Map_Lock);
    if (Begun_Anew_ || !pLocal_->Renew(S_.Size.get(), S_.Sec_Shift.get()))
        return false;
    Begun_Anew_ = true;
    pState_->Chunk = 0;
    QRN_Sync_Stats.First_Chunk = 0;
    QRN_Sync_Stats.Chunk = 0;
    Last_ = 0;
    Unproven_ = 0;
    return true;
}

bool Sync_Run::Copy_Run(ULONGLONG Sector, LONG Left)
{
    while (Left > 0) {
        LONG Done = pSource_->Read(0, Sector, pState_->Buffer, Left);
        if (Done == Img_Failed)
            return false;
        if (Done < 0)
            Done = -Done;  // the server lacks them
        else if ((Done = pLocal_->Write(0, Sector, pState_->Buffer, Done)) <= 0)
            return false;
        Sector += static_cast<ULONG>(Done / Sector_Bytes);
        Left -= Done;
    }
    return true;
}

// Engine sector 0 does not exist. A chunk that could not be copied whole is none.
bool Sync_Run::Copy_Chunk()
{
    ULONGLONG Sector = ULONGLONG{pState_->Chunk} * Chunk_Secs;
    LONG Bytes = Chunk_64K;
    if (Sector == 0) {
        Sector = 1;
        Bytes -= Sector_Bytes;
    }
    bool Copied = Copy_Run(Sector, Bytes);
    Mutex_Guard Guard(pLocal_->Map_Lock);
    if (Copied)
        return pLocal_->Entry_Set_Tag(pState_->Chunk, pState_->Src_Tag);
    pLocal_->Entry_Reset(pState_->Chunk);
    return false;
}

// With shifted sectors the run of a chunk begins with the last sector of the chunk before. Where the chunk
// before was copied and this one is in step, that sector is still missing.
bool Sync_Run::Mend_Chunk_Before()
{
    constexpr ULONG Last_Sector = Chunk_Secs - 1;
    if (L_.Sec_Shift.get() == 0 || pState_->Chunk == 0)
        return true;
    {
        Mutex_Guard Guard(pLocal_->Map_Lock);
        const Entry_64K* pEntry = pLocal_->Map_Find(false, pState_->Chunk - 1);
        if (!pEntry)
            return !pLocal_->Find_Failed();
        if (pEntry->ModifyTag.get() == 0 || formats::sector_flag(pEntry->SecFlag, Last_Sector))
            return true;
    }
    return Copy_Run(ULONGLONG{pState_->Chunk} * Chunk_Secs, Sector_Bytes);
}

// A chunk that failed is not handled, so Sync_Pos stays before it: what lies below is whole, and of one
// image.
bool Sync_Run::Handle_Chunk()
{
    bool Copy;
    if (!Source_Tag())
        return false;
    if (!Prepare_Chunk(Copy))
        return Begin_Anew();
    if (!(Copy ? Copy_Chunk() : Mend_Chunk_Before()))
        return false;
    QRN_Sync_Stats.Chunk = ++pState_->Chunk;
    return ++Unproven_ < Unproven_Max || Source_Unchanged();
}

// The server's image may have been replaced by another while chunks of it were read. When it is still the one
// that the run began with, Sync_Pos moves over what has been handled. It names the last chunk handled.
bool Sync_Run::Source_Unchanged()
{
    ImageHeader Now;
    constexpr LONG Bytes = sizeof Now;
    if (pSource_->Image()->Read(0, &Now, Bytes) != Bytes || !Bytes_Equal(&Now, &S_, sizeof Now))
        return false;
    Mutex_Guard Guard(pLocal_->Map_Lock);
    if (pState_->Chunk > 0)
        L_.Sync_Pos.set(pState_->Chunk - 1);
    Unproven_ = 0;
    return true;
}

void Sync_Run::Finish()
{
    {
        Mutex_Guard Guard(pLocal_->Map_Lock);
        if (pState_->Status == Sync_Running) {
            L_.CreateTime = S_.CreateTime;
            L_.Prev_Time = S_.Prev_Time;
            L_.Modify_Time = S_.Modify_Time;
            L_.ModifyTag = S_.ModifyTag;
            pLocal_->Trust.Check_Passed();
        }
        L_.Sync_Tag = S_.ModifyTag;
        Mutex_Guard Header_Guard(pLocal_->Image()->Hdr_Lock);
        ++pLocal_->Image()->Hdr_Dirty;
    }
    pLocal_->Img_Flush();
    const ULONG Status = pState_->Status;
    QRN_Sync_Stats.State = Status == Sync_Running   ? formats::sync_complete
                           : Status == Sync_Stopped ? formats::sync_stopped
                                                    : formats::sync_failed;
    DbgPrint("\nQRNH_IMG_SYNC: End=%d", Status);
}

// Nothing will check the local image in this start.
void Server_Has_No_Image()
{
    Version_Unchecked();
    if (pQRNH_Img_Sys)
        Serve_Unchecked(pQRNH_Img_Sys);
}

void Publish(PVOID pState)
{
    Spin_Guard Guard(Sync_Lock);
    pSync_State = pState;
}

void Run_With(QRNH_IMG_RW* pSource)
{
    auto pState =
        static_cast<Sync_State*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Sync_State), Tag_Memory));
    if (!pState)
        return;
    pState->Status = Sync_Running;
    pState->Chunk = 0;
    Publish(pState);
    QRNH_IMG_SYNC(pState, pQRNH_Img_Sys, pSource);
    Publish(Sync_Ended);
    Free_Object(pState);
}

}  // namespace

ULONG Img_Chunks(const ImageHeader& Header)
{
    return static_cast<ULONG>((ULONGLONG{Header.Size.get()} + Chunk_Secs - 1) / Chunk_Secs);
}

LONG QRNH_IMG_SYNC(Sync_State* pState, QRNH_IMG_RW* pLocal, QRNH_IMG_RW* pSource)
{
    Sync_Run(pState, pLocal, pSource).Go();
    return 0;
}

VOID NTAPI QRN_RW_HDD_Sync(PVOID)
{
    auto pNet = Create_Object<QRNH_NET_IMG>();
    auto pSource = pNet ? Create_Object<QRNH_IMG_RW>(static_cast<QRNH_OBJ_IMG*>(pNet), ULONG{0}) : nullptr;
    DbgPrint("\nQRN_RW_HDD_Sync");
    QRN_Sync_Stats.State = formats::sync_asking_server;
    if (pNet && pSource && pNet->Open())
        Run_With(pSource);
    else
        Server_Has_No_Image();
    if (QRN_Sync_Stats.State == formats::sync_asking_server)
        QRN_Sync_Stats.State = formats::sync_no_server_image;
    Publish(Sync_Ended);
    Free_Object(pSource);
    Free_Object(pNet);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

void Sync_Start_Once()
{
    if (InterlockedCompareExchangePointer(&pSync_State, Sync_Ended, nullptr) != nullptr)
        return;
    HANDLE Thread;
    if (NT_SUCCESS(PsCreateSystemThread(&Thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                        QRN_RW_HDD_Sync, nullptr)))
        ZwClose(Thread);
}

bool Sync_Stop()
{
    Spin_Guard Guard(Sync_Lock);
    PVOID pState = pSync_State;
    if (pState == nullptr || pState == Sync_Ended)
        return false;
    static_cast<Sync_State*>(pState)->Status = Sync_Stopped;
    return true;
}

void QRN_RW_HDD_Stop()
{
    DbgPrint("\nQRN_RW_HDD_Stop");
    if (!Sync_Stop())
        return;
    for (LONG Poll = 0; Poll < Stop_Polls && pSync_State != Sync_Ended; ++Poll)
        Sleep_Ms(Stop_Poll_Ms);
}

bool Serve_Unchecked(QRNH_IMG_RW* pImage)
{
    if (!Claim_Version(Version_Image))
        return false;
    Mutex_Guard Guard(pImage->Map_Lock);
    const ImageHeader& Header = pImage->Header();
    bool Whole = Header.ModifyTag.get() == Header.Sync_Tag.get() &&
                 ULONGLONG{Header.Sync_Pos.get()} + 1 >= Img_Chunks(Header);
    return pImage->Trust.Check_Given_Up(Whole);
}
