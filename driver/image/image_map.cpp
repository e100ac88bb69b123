// SPDX-License-Identifier: MIT
#include "driver/image/image_map.h"

using formats::Entry_64K;

constexpr ULONG Leaf_Level = 2;

void Map_Cache::Create(QRNH_OBJ_IMG* pNew_Image)
{
    pImage = pNew_Image;
    Find_Failed = false;
    Empty();
}

void Map_Cache::Empty()
{
    for (ULONG Level = 0; Level < Levels; ++Level) {
        Next_Victim[Level] = 0;
        for (Map_Buf& Buf : Buffers[Level])
            Buf.Dirty = Buf.Sector = 0;
    }
    pLeaf = nullptr;
}

Map_Buf* Map_Cache::Fail()
{
    Find_Failed = true;
    return nullptr;
}

// A block that cannot be written stays in its buffer, dirty.
bool Map_Cache::Save(Map_Buf& Buf)
{
    if (!pImage->Map_Write(Buf.Sector, Buf.Data)) {
        pImage->Map_Lacks_Something();
        return false;
    }
    Buf.Dirty = 0;
    return true;
}

// An empty buffer of the level; null when none can be made empty.
Map_Buf* Map_Cache::Victim(ULONG Level)
{
    for (ULONG Try = 0; Try < Bufs; ++Try) {
        Map_Buf& Buf = Buffers[Level][Next_Victim[Level]];
        Next_Victim[Level] ^= 1;
        if (!Buf.Dirty || Save(Buf)) {
            Buf.Sector = 0;
            return &Buf;
        }
    }
    return nullptr;
}

Map_Buf* Map_Cache::Map_Load(ULONG Level, ULONG Sector)
{
    for (Map_Buf& Buf : Buffers[Level])
        if (Buf.Sector == Sector)
            return &Buf;
    if (!pImage->Holds(Sector, formats::map_block_sectors))
        return Fail();
    Map_Buf* pBuf = Victim(Level);
    constexpr LONG Bytes = sizeof pBuf->Data;
    if (!pBuf || pImage->Read(Sector, pBuf->Data, Bytes) != Bytes)
        return Fail();
    pBuf->Sector = Sector;
    return pBuf;
}

// A new block of zeros. In an image that lasts it is on the disk before anything there can name it.
Map_Buf* Map_Cache::New_Block(ULONG Level)
{
    Map_Buf* pBuf = Victim(Level);
    if (!pBuf)
        return Fail();
    ULONG Sector = pImage->Allocate(Block_Map);
    if (Sector == 0)
        return nullptr;
    RtlZeroMemory(pBuf->Data, sizeof pBuf->Data);
    if (pImage->Use == Area_Use::Lasting && !pImage->Map_Write(Sector, pBuf->Data))
        return Fail();
    pBuf->Sector = Sector;
    pBuf->Dirty = 1;
    return pBuf;
}

Map_Buf* Map_Cache::Root_Block(bool Make, ULONG Key)
{
    ULONG Index = formats::root_index(Key);
    if (ULONG Sector = pImage->Root_Entry(Index))
        return Map_Load(0, Sector);
    Map_Buf* pBuf = Make ? New_Block(0) : nullptr;
    if (pBuf)
        pImage->Root_Link(Index, pBuf->Sector);
    return pBuf;
}

// The block of the next level that the table's entry names.
Map_Buf* Map_Cache::Tbl_Entry(bool Make, Map_Buf* pTable, ULONG Index, ULONG Level)
{
    formats::Le32& Entry = reinterpret_cast<formats::MapBlock*>(pTable->Data)->Next_Sec[Index];
    if (ULONG Sector = Entry.get())
        return Map_Load(Level, Sector);
    Map_Buf* pBuf = Make ? New_Block(Level) : nullptr;
    if (pBuf) {
        Entry.set(pBuf->Sector);
        pTable->Dirty = 1;
    }
    return pBuf;
}

Entry_64K* Map_Cache::Map_Find(bool Make, ULONG Key)
{
    Find_Failed = pImage->Map_Is == Map_State::Lost;
    if (Find_Failed)
        return nullptr;
    Map_Buf* pTable = Root_Block(Make, Key);
    if (pTable)
        pTable = Tbl_Entry(Make, pTable, formats::level1_index(Key), 1);
    pLeaf = pTable ? Tbl_Entry(Make, pTable, formats::level2_index(Key), Leaf_Level) : nullptr;
    if (!pLeaf)
        return nullptr;
    Entry_64K* pEntry = &reinterpret_cast<formats::LeafBlock*>(pLeaf->Data)->Chunk[formats::leaf_index(Key)];
    if (ULONG Sector = pEntry->Data_Sec.get()) {
        if (pImage->Holds(Sector, formats::chunk_sectors))
            return pEntry;
        Fail();
        return nullptr;
    }
    ULONG Sector = Make ? pImage->Allocate(Block_Data) : 0;
    if (Sector == 0)
        return nullptr;
    pEntry->Data_Sec.set(Sector);
    // What stands in an entry without data block is nobody's.
    RtlZeroMemory(pEntry->SecFlag, sizeof pEntry->SecFlag);
    pEntry->ModifyTag.set(0);
    Entry_Changed();
    return pEntry;
}

bool Map_Cache::Map_Flush()
{
    bool Clean = pImage->Root_Flush();
    for (auto& Level : Buffers)
        for (Map_Buf& Buf : Level)
            if (Buf.Dirty && !Save(Buf))
                Clean = false;
    return Clean;
}
