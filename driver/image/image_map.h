// SPDX-License-Identifier: MIT
// The map of one LUN in an image area: from a chunk key to the chunk's entry, through a cache of two map
// blocks per level. All of it is guarded by the Map_Lock of the image block object that owns it; threads at
// PASSIVE_LEVEL, since a lookup may read and write the disk.
#pragma once

#include "driver/image/image_header.h"

struct Map_Buf {
    ULONG Dirty;   // 1: the data differs from the block on the disk
    ULONG Sector;  // of the block held; 0: none
    UCHAR Data[formats::map_block_bytes];
};

class Map_Cache {
public:
    void Create(QRNH_OBJ_IMG* pNew_Image);

    // The chunk's entry, valid until the next lookup; null when there is none or it cannot be told, which
    // Failed() then says. With Make, what is missing is allocated, and null without Failed() means no room;
    // without it, an entry without a data block counts as none.
    formats::Entry_64K* Map_Find(bool Make, ULONG Key);
    bool Failed() const { return Find_Failed; }
    // The entry last found was changed.
    void Entry_Changed() { pLeaf->Dirty = 1; }
    bool Leaf_Dirty() const { return pLeaf->Dirty != 0; }

    // Writes what is dirty; false when some of it stays so.
    bool Map_Flush();
    // Forgets all blocks, dirty or not.
    void Empty();

    QRNH_OBJ_IMG* Image() const { return pImage; }

private:
    static constexpr ULONG Levels = 3;
    static constexpr ULONG Bufs = 2;

    Map_Buf* Map_Load(ULONG Level, ULONG Sector);
    Map_Buf* New_Block(ULONG Level);
    Map_Buf* Tbl_Entry(bool Make, Map_Buf* pTable, ULONG Index, ULONG Level);
    Map_Buf* Root_Block(bool Make, ULONG Key);
    Map_Buf* Victim(ULONG Level);
    bool Save(Map_Buf& Buf);
    Map_Buf* Fail();

    QRNH_OBJ_IMG* pImage;
    Map_Buf Buffers[Levels][Bufs];
    UCHAR Next_Victim[Levels];
    bool Find_Failed;
    Map_Buf* pLeaf;  // holds the entry last found
};
