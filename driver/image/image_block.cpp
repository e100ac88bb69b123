// SPDX-License-Identifier: MIT
#include "driver/image/image_block.h"

#include "driver/block/pieces.h"
#include "driver/block/sector_flags.h"
#include "driver/kernel/bytes.h"

using formats::Entry_64K;

// Flags lie in a map block at a multiple of 4, as the flag routines need it.
static_assert(offsetof(Map_Buf, Data) % 4 == 0 && offsetof(Entry_64K, SecFlag) % 4 == 0);

static LONG Whole_Sectors(LONG Bytes)
{
    return Bytes < 0 ? 0 : Bytes - Bytes % Sector_Bytes;
}

QRNH_IMG_RW::QRNH_IMG_RW(QRNH_OBJ_IMG* pImage, ULONG New_Lun) : pHeader(&pImage->Header), Lun(New_Lun)
{
    Cache.Create(pImage);
    Mutex_Init(Map_Lock);
}

ULONGLONG QRNH_IMG_RW::Shifted(ULONGLONG Sector) const
{
    return pHeader->Sec_Shift.get() != 0 && Sector != 0 ? Sector - 1 : Sector;
}

LONG QRNH_IMG_RW::Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Write_Run(Ctx, Shifted(Sector), pBuffer, Bytes);
}

LONG QRNH_IMG_RW::Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Read_Run(Ctx, Shifted(Sector), pBuffer, Bytes);
}

LONG QRNH_IMG_RW::Write_Run(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Run_In_Pieces(Lun, Sector, pBuffer, Bytes,
                         [=, this](auto... Piece) { return Write_Chunk(Ctx, Piece...); });
}

LONG QRNH_IMG_RW::Read_Run(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Run_In_Pieces(Lun, Sector, pBuffer, Bytes,
                         [=, this](auto... Piece) { return Read_Chunk(Ctx, Piece...); });
}

void QRNH_IMG_RW::Entry_Mark(Entry_64K* pEntry, ULONG Off, LONG Bytes)
{
    ULONG Old_Tag = pEntry->ModifyTag.get();
    ULONG Tag = pHeader->ModifyTag.get();
    if (Keep_Tags)
        Tag = Old_Tag != 0 ? Old_Tag : Tag_In_Work;
    if (!Cache.Leaf_Dirty() && Old_Tag == Tag && SecFlag_Hit_Len(pEntry->SecFlag, Off, Bytes) == Bytes)
        return;
    SecFlag_Set(pEntry->SecFlag, Off, Bytes);
    pEntry->ModifyTag.set(Tag);
    Cache.Entry_Changed();
}

// Marks written sectors present, from chunk to chunk. Returns the bytes marked from the start.
LONG QRNH_IMG_RW::Mark_Run(ULONG Off, ULONG Key, LONG Bytes)
{
    Mutex_Guard Guard(Map_Lock);
    LONG Marked = 0;
    while (Marked < Bytes) {
        Entry_64K* pEntry = Map_Find(false, Key++);
        if (!pEntry)
            break;
        LONG Length = In_Chunk(Off, Bytes - Marked);
        Entry_Mark(pEntry, Off, Length);
        Marked += Length;
        Off = 0;
    }
    return Marked;
}

LONG QRNH_IMG_RW::Write_Chunk(ULONG_PTR, ULONG Off, ULONG Key, PVOID pBuffer, LONG Left, LONG Bytes)
{
    ULONG Sector;
    LONG Total = Bytes;
    {
        Mutex_Guard Guard(Map_Lock);
        const Entry_64K* pEntry = Map_Find(true, Key);
        if (!pEntry)
            return -Bytes;
        Sector = pEntry->Data_Sec.get() + Off;
        for (ULONG Next_Key = Key + 1; Total < Left; ++Next_Key) {
            pEntry = Map_Find(true, Next_Key);
            if (!pEntry || pEntry->Data_Sec.get() != Sector + static_cast<ULONG>(Total / Sector_Bytes))
                break;
            Total += Smaller(Left - Total, Chunk_64K);
        }
    }
    LONG Written = Whole_Sectors(Image()->Write(Sector, pBuffer, Total));
    LONG Marked = Mark_Run(Off, Key, Written);
    return Marked > 0 ? Marked : -Total;
}

bool QRNH_IMG_RW::Is_Served(ULONG Key) const
{
    return Trust.Covers(Key, pHeader->Sync_Pos.get());
}

// How many of the missing bytes are known to be zeros, since the synchronisation passed them. A map that lost
// something knows nothing.
LONG QRNH_IMG_RW::Known_Zeros(ULONG Off, ULONG Key, LONG Bytes) const
{
    ULONG Sync_Pos = pHeader->Sync_Pos.get();
    if (Key >= Sync_Pos || Image()->Map_Is == Map_State::Incomplete)
        return 0;
    ULONGLONG Known = ULONGLONG{Sync_Pos - Key} * Chunk_64K - Off * static_cast<ULONG>(Sector_Bytes);
    return static_cast<LONG>(Smaller<ULONGLONG>(Known, static_cast<ULONG>(Bytes)));
}

LONG QRNH_IMG_RW::Read_Chunk(ULONG_PTR, ULONG Off, ULONG Key, PVOID pBuffer, LONG Left, LONG Bytes)
{
    Mutex_Take(Map_Lock);
    if (!Is_Served(Key)) {
        Mutex_Give(Map_Lock);
        return -Left;
    }
    const Entry_64K* pEntry = Map_Find(false, Key);
    bool Unknown = !pEntry && Find_Failed();
    LONG Present = pEntry ? SecFlag_Hit_Len(pEntry->SecFlag, Off, Bytes) : 0;
    if (Present == 0) {
        LONG Missing = Unknown ? 0 : Miss_Len(pEntry, Off, Key, Left, Bytes);
        LONG Zeros = Unknown ? 0 : Known_Zeros(Off, Key, Missing);
        Mutex_Give(Map_Lock);
        if (Unknown)
            return Img_Failed;
        RtlZeroMemory(pBuffer, static_cast<SIZE_T>(Zeros));
        return Zeros > 0 ? Zeros : -Missing;
    }
    ULONG Sector = pEntry->Data_Sec.get() + Off;
    if (Present == Bytes)
        Present = Read_Extend(Sector, Key, Left, Bytes);
    ULONG Before = Renewals;
    Mutex_Give(Map_Lock);

    LONG Done = Whole_Sectors(Image()->Read(Sector, pBuffer, Present));
    // What a renewed header has handed out again is no longer what was looked up.
    return Done > 0 && Renewals == Before ? Done : Img_Failed;
}

// Length of the present run that goes on in the following chunks and on the disk.
LONG QRNH_IMG_RW::Read_Extend(ULONG Sector, ULONG Key, LONG Left, LONG Bytes)
{
    LONG Total = Bytes;
    while (Total < Left && Is_Served(++Key)) {
        const Entry_64K* pEntry = Map_Find(false, Key);
        if (!pEntry || pEntry->Data_Sec.get() != Sector + static_cast<ULONG>(Total / Sector_Bytes))
            break;
        LONG Length = Smaller(Left - Total, Chunk_64K);
        LONG Present = SecFlag_Hit_Len(pEntry->SecFlag, 0, Length);
        Total += Present;
        if (Present != Length)
            break;
    }
    return Total;
}

// Length of the run of missing sectors from sector Off of the chunk on, whose entry is pEntry if it has one;
// at most Left, of which Bytes lie in this chunk. What cannot be looked up ends the run.
LONG QRNH_IMG_RW::Miss_Len(const Entry_64K* pEntry, ULONG Off, ULONG Key, LONG Left, LONG Bytes)
{
    LONG Missing = pEntry ? SecFlag_Miss_Len(pEntry->SecFlag, Off, Bytes) : Bytes;
    if (Missing != Bytes)
        return Missing;
    return Missing_Run(Key, Missing, Left, [this](ULONG Next_Key, LONG Length) {
        const Entry_64K* pNext = Map_Find(false, Next_Key);
        if (!pNext)
            return Find_Failed() ? 0 : Length;
        return SecFlag_Miss_Len(pNext->SecFlag, 0, Length);
    });
}

bool QRNH_IMG_RW::Forget(ULONGLONG Sector, LONG Bytes)
{
    Sector = Shifted(Sector);
    Mutex_Guard Guard(Map_Lock);
    ULONG Key = Chunk_Key(Lun, Sector);
    ULONG Off = static_cast<ULONG>(Sector) & Chunk_Sec_Mask;
    for (LONG Left = Bytes; Left > 0;) {
        LONG Length = In_Chunk(Off, Left);
        if (Entry_64K* pEntry = Map_Find(false, Key)) {
            SecFlag_Clr(pEntry->SecFlag, Off, Length);
            Cache.Entry_Changed();
        } else if (Find_Failed()) {
            return false;
        }
        Left -= Length;
        Off = 0;
        ++Key;
    }
    return true;
}

ULONG QRNH_IMG_RW::Entry_Tag(ULONG Key)
{
    const Entry_64K* pEntry = Map_Find(false, Key);
    return pEntry ? pEntry->ModifyTag.get() : 0;
}

bool QRNH_IMG_RW::Entry_Reset(ULONG Key)
{
    if (Entry_64K* pEntry = Map_Find(false, Key)) {
        pEntry->ModifyTag.set(0);
        RtlZeroMemory(pEntry->SecFlag, sizeof pEntry->SecFlag);
        Cache.Entry_Changed();
    }
    return !Find_Failed();
}

// Without room for the chunk there is nothing to tag.
bool QRNH_IMG_RW::Entry_Set_Tag(ULONG Key, ULONG Tag)
{
    if (Entry_64K* pEntry = Map_Find(true, Key)) {
        pEntry->ModifyTag.set(Tag);
        Cache.Entry_Changed();
    }
    return !Find_Failed();
}

bool QRNH_IMG_RW::Renew(ULONG Size, ULONG Sec_Shift)
{
    Mutex_Guard Guard(Image()->Hdr_Lock);
    Cache.Empty();
    Renewals = Renewals + 1;
    return Image()->Renew(Size, Sec_Shift);
}

bool QRNH_IMG_RW::Img_Flush()
{
    {
        Mutex_Guard Guard(Map_Lock);
        if (Image()->Map_Is == Map_State::Lost || !Cache.Map_Flush() || !Image()->Flush())
            return false;
    }
    Mutex_Guard Guard(Image()->Hdr_Lock);
    return Image()->QRNH_Header_Write() && Image()->Flush();
}
