// SPDX-License-Identifier: MIT
// The image store object: one image area with its header, its root table and its allocator. Threads at
// PASSIVE_LEVEL. Hdr_Lock guards Used and Map_Secs of the header, what is to be written of it, and the root
// table, once the object is shared; Create, QRNH_Header_New, QRNH_Header_Modify, QRNH_Header_Offset and
// QRNH_Header_Write do not take it.
//
// An image that outlives a start keeps this order on its disk: data, then a header whose Used is beyond every
// block handed out, then the map and root blocks that name them, and the header's Sync_Pos only after all of
// these. So the disk holds a whole image at every moment; a cut of power costs what was copied last.
#pragma once

#include <nt.h>

#include "formats/image_area.h"

// Of QRNH_OBJ_IMG::Create.
constexpr ULONG Img_Always_New = 1;
constexpr ULONG Img_Modify = 2;  // a modifying open, and no limit of allocation
constexpr ULONG Img_Must_Exist = 4;

constexpr ULONG Img_No_Limit = 0xFFFFFFFF;

enum Header_Result : LONG {
    Header_Good = 0,
    Header_Unreadable = -1,
    Header_Foreign = -2,
    Header_Damaged = -3,
};

// What QRNH_Header_Offset allocates; anything else is a data block.
constexpr ULONG Block_None = 0;
constexpr ULONG Block_Map = 1;
constexpr ULONG Block_Data = 2;

enum class Area_Use {
    Temporary,
    Lasting,    // outlives a start; its header is written
    Read_Only,  // the server's
};

// The map as the disk has it.
enum class Map_State {
    Whole,
    Incomplete,  // a block of it could not be written: what the map lacks may be there all the same
    Lost,        // no lookup can succeed until the header is renewed
};

class QRNH_OBJ_IMG {
public:
    // Sector counts from the start of the area. Return the bytes done, perhaps fewer, or -Bytes.
    virtual LONG Read(ULONG Sector, PVOID pBuffer, LONG Bytes);
    virtual LONG Write(ULONG Sector, PVOID pBuffer, LONG Bytes);
    // What was written lies on the medium afterwards.
    virtual bool Flush();

    // Opens the area; once, before the object is shared. Returns Flags, or -2 or -3.
    LONG Create(PDEVICE_OBJECT pNew_Device, ULONG New_Base_Sec, ULONG Total, ULONG Flags);

    LONG QRNH_Header_Read();
    LONG QRNH_Header_New(ULONG Size);
    LONG QRNH_Header_Modify();
    // False when it could not be written.
    bool QRNH_Header_Write();
    ULONG QRNH_Header_ChkSum() const;
    // Sector of a new block of the kind, 0 without room; Block_None: Used, and nothing is allocated.
    ULONG QRNH_Header_Offset(ULONG Kind);
    // The same under Hdr_Lock.
    ULONG Allocate(ULONG Kind);

    // Makes the area an empty image, as which it is found again whenever the power fails from here on. The
    // caller holds Hdr_Lock and keeps everybody out of the map. False: it failed, and the map is lost.
    bool Renew(ULONG Size, ULONG Sec_Shift);
    // The synchronisation starts again from chunk 0, on the disk too. The caller holds Hdr_Lock.
    bool Restart();

    // Sector of the level-1 block under a root entry; 0: none.
    ULONG Root_Entry(ULONG Index);
    void Root_Link(ULONG Index, ULONG Sector);
    // Writes the root table if it could not be written before.
    bool Root_Flush();
    // Writes a map block in its order.
    bool Map_Write(ULONG Sector, PVOID pBlock);

    // Whether a block of so many sectors can lie there. Nothing that the disk says is taken on trust.
    bool Holds(ULONG Sector, ULONG Count) const;

    PDEVICE_OBJECT pDevice;  // null for the server image
    ULONG Base_Sec;
    ULONG Total_Secs;  // the first sector past the area; Img_No_Limit
    KEVENT Hdr_Lock;
    ULONG Hdr_Dirty;  // changes since the header was written
    formats::ImageHeader Header;
    formats::RootTable Root_Tbl;

    Area_Use Use;
    Map_State Map_Is;
    void Map_Lacks_Something();

private:
    LONG Root_Load();
    bool Root_Save();
    bool Write_Header(formats::ImageHeader& What);
    bool Cover();

    bool Root_Dirty;               // the root table could not be written
    ULONG Covered;                 // Used of the header on the disk
    formats::ImageHeader On_Disk;  // the header that the disk has, or had best have, until the next flush
};
