// SPDX-License-Identifier: MIT
#include "driver/image/image_header.h"

#include "driver/image/file_io.h"
#include "driver/kernel/bytes.h"
#include "driver/kernel/locks.h"

using formats::ImageHeader;

constexpr ULONG Header_Sector = 0;

static void Print_Field(const char* Label, ULONG Value)
{
    DbgPrint("%s%08X ", Label, Value);
}

static void Forget_Progress(ImageHeader& Header)
{
    Header.Sync_Pos.set(0);
    Header.Sync_Tag.set(0);
}

static ULONGLONG Local_Time()
{
    LARGE_INTEGER System;
    LARGE_INTEGER Local;
    KeQuerySystemTime(&System);
    ExSystemTimeToLocalTime(&System, &Local);
    return static_cast<ULONGLONG>(Local.QuadPart);
}

LONG QRNH_OBJ_IMG::Read(ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Fsd_Read(pDevice, Base_Sec + Sector, pBuffer, Bytes);
}

LONG QRNH_OBJ_IMG::Write(ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    return Fsd_Write(pDevice, Base_Sec + Sector, pBuffer, Bytes);
}

bool QRNH_OBJ_IMG::Flush()
{
    return Fsd_Flush(pDevice);
}

LONG QRNH_OBJ_IMG::Create(PDEVICE_OBJECT pNew_Device, ULONG New_Base_Sec, ULONG Total, ULONG Flags)
{
    Print_Field("\nQRNH_OBJ_IMG::Create=", New_Base_Sec);
    Print_Field(",", Total);
    Print_Field("Flag=", Flags);
    pDevice = pNew_Device;
    Base_Sec = New_Base_Sec;
    Total_Secs = (Flags & Img_Modify) ? Img_No_Limit : Total;
    Mutex_Init(Hdr_Lock);
    Hdr_Dirty = 0;
    Use = (Flags & Img_Must_Exist)   ? Area_Use::Read_Only
          : (Flags & Img_Always_New) ? Area_Use::Temporary
                                     : Area_Use::Lasting;
    Map_Is = Map_State::Whole;
    Root_Dirty = false;
    Covered = 0;

    LONG Found = (Flags & Img_Always_New) ? Header_Foreign : QRNH_Header_Read();
    if (Found != Header_Good) {
        if (Use == Area_Use::Read_Only)
            return -2;
        // What cannot be read may be an image whose content nobody else has.
        if (Found == Header_Unreadable)
            Map_Is = Map_State::Lost;
        if (QRNH_Header_New(Total) <= 0 && Use == Area_Use::Lasting)
            Map_Is = Map_State::Lost;
        return static_cast<LONG>(Flags);
    }
    Covered = Header.Used.get();
    On_Disk = Header;
    if ((Flags & Img_Modify) && Use != Area_Use::Read_Only && QRNH_Header_Modify() < 0)
        return -3;
    if (Root_Load() > 0)
        return static_cast<LONG>(Flags);
    Map_Is = Map_State::Lost;
    return Use == Area_Use::Read_Only ? -2 : static_cast<LONG>(Flags);
}

LONG QRNH_OBJ_IMG::QRNH_Header_Read()
{
    if (Read(Header_Sector, &Header, sizeof Header) != static_cast<LONG>(sizeof Header)) {
        DbgPrint("\nQRNH_Header: Read Error");
        return Header_Unreadable;
    }
    ULONG Used = Header.Used.get();
    bool No_Root_Yet = Used == formats::root_sector;
    if (!formats::is_image_header(Header) || (Used < formats::first_block_sector && !No_Root_Yet)) {
        DbgPrint("\nQRNH_Header: 'CmpssFl' Make Error");
        return Header_Foreign;
    }
    Print_Field("\nQRNH_Header: Size=", Header.Size.get());
    Print_Field("Used=", Used);
    Print_Field("ChkSum=", Header.ChkSum.get());
    ULONG Sum = QRNH_Header_ChkSum();
    if (Sum == Header.ChkSum.get()) {
        // A header without a map tells of no chunk, whatever a cut of power made of its two sectors.
        if (No_Root_Yet)
            Forget_Progress(Header);
        return Header_Good;
    }
    Print_Field("Real ChkSum=", Sum);
    DbgPrint("ERROR!");
    return Header_Damaged;
}

// Positive when the root table is as the area has it.
LONG QRNH_OBJ_IMG::QRNH_Header_New(ULONG Size)
{
    DbgPrint("\nQRNH_Header_New");
    RtlZeroMemory(&Header, sizeof Header);
    formats::set_new_image(Header, Size);
    Header.CreateTime.set(Local_Time());
    Header.Modify_Time = Header.CreateTime;
    ++Hdr_Dirty;
    On_Disk = Header;
    return Root_Load();
}

LONG QRNH_OBJ_IMG::QRNH_Header_Modify()
{
    Header.Prev_Time = Header.Modify_Time;
    Header.Modify_Time.set(Local_Time());
    Header.ModifyTag.set(Header.ModifyTag.get() + 1);
    if (Header.ModifyTag.get() == 0) {
        DbgPrint("\nQRNH_Header: Need Rebuild All ModifyTag And CreateTime");
        return -1;
    }
    Header.Sync_Pos.set(0);
    ++Hdr_Dirty;
    return 0;
}

ULONG QRNH_OBJ_IMG::QRNH_Header_ChkSum() const
{
    return formats::image_checksum(&Header);
}

bool QRNH_OBJ_IMG::Write_Header(ImageHeader& What)
{
    What.ChkSum.set(formats::image_checksum(&What));
    if (Write(Header_Sector, &What, sizeof What) != static_cast<LONG>(sizeof What))
        return false;
    Covered = What.Used.get();
    return true;
}

bool QRNH_OBJ_IMG::QRNH_Header_Write()
{
    if (Hdr_Dirty == 0 || Use != Area_Use::Lasting)
        return true;
    bool Written = Write_Header(Header);
    DbgPrint("\nQRNH_Header_Write");
    if (Written) {
        Hdr_Dirty = 0;
        On_Disk = Header;
    }
    return Written;
}

// Sees to it that the header on the disk covers all blocks handed out. What it tells about the content stays
// as it was: the map that it would go with is not there yet.
bool QRNH_OBJ_IMG::Cover()
{
    if (Map_Is == Map_State::Lost)
        return false;
    if (Covered == Header.Used.get())
        return true;
    On_Disk.Used = Header.Used;
    On_Disk.Map_Secs = Header.Map_Secs;
    return Write_Header(On_Disk);
}

ULONG QRNH_OBJ_IMG::QRNH_Header_Offset(ULONG Kind)
{
    ULONG Used = Header.Used.get();
    if (Kind == Block_None)
        return Used;
    ULONG Size = Kind == Block_Map ? formats::map_block_sectors : formats::chunk_sectors;
    if (ULONGLONG{Used} + Size > Total_Secs) {
        Print_Field("\nQRNH_Header_Offset: Total_Secs Out=", Used);
        Print_Field("Total_Secs=", Total_Secs);
        return 0;
    }
    if (Kind == Block_Map)
        Header.Map_Secs.set(Header.Map_Secs.get() + Size);
    ++Hdr_Dirty;
    Header.Used.set(Used + Size);
    return Used;
}

ULONG QRNH_OBJ_IMG::Allocate(ULONG Kind)
{
    Mutex_Guard Guard(Hdr_Lock);
    return QRNH_Header_Offset(Kind);
}

LONG QRNH_OBJ_IMG::Root_Load()
{
    if (Header.Used.get() != formats::root_sector) {
        LONG Done = Read(formats::root_sector, &Root_Tbl, sizeof Root_Tbl);
        return Done == static_cast<LONG>(sizeof Root_Tbl) ? Done : -1;
    }
    RtlZeroMemory(&Root_Tbl, sizeof Root_Tbl);
    if (Use == Area_Use::Read_Only)
        return sizeof Root_Tbl;
    if (QRNH_Header_Offset(Block_Map) == 0 || Map_Is == Map_State::Lost)
        return -1;
    LONG Done = Write(formats::root_sector, &Root_Tbl, sizeof Root_Tbl);
    if (Done != static_cast<LONG>(sizeof Root_Tbl) || (Use == Area_Use::Lasting && !Flush()))
        return -1;
    return Done;
}

ULONG QRNH_OBJ_IMG::Root_Entry(ULONG Index)
{
    Mutex_Guard Guard(Hdr_Lock);
    return Root_Tbl.Level1_Sec[Index].get();
}

void QRNH_OBJ_IMG::Root_Link(ULONG Index, ULONG Sector)
{
    Mutex_Guard Guard(Hdr_Lock);
    Root_Tbl.Level1_Sec[Index].set(Sector);
    if (!Root_Save() && Use == Area_Use::Lasting) {
        Root_Dirty = true;
        Map_Lacks_Something();
    }
}

bool QRNH_OBJ_IMG::Root_Save()
{
    if (Use == Area_Use::Lasting && (!Cover() || !Flush()))
        return false;
    return Write(formats::root_sector, &Root_Tbl, sizeof Root_Tbl) == static_cast<LONG>(sizeof Root_Tbl);
}

bool QRNH_OBJ_IMG::Root_Flush()
{
    Mutex_Guard Guard(Hdr_Lock);
    if (Root_Dirty && Root_Save())
        Root_Dirty = false;
    return !Root_Dirty;
}

bool QRNH_OBJ_IMG::Map_Write(ULONG Sector, PVOID pBlock)
{
    if (Use == Area_Use::Lasting) {
        Mutex_Guard Guard(Hdr_Lock);
        if (!Cover() || !Flush())
            return false;
    }
    return Write(Sector, pBlock, formats::map_block_bytes) == static_cast<LONG>(formats::map_block_bytes);
}

// While the header has no root table, the old one counts for nothing; and its own it gets when that is there.
// The header's two sectors may reach the disk one without the other, so the progress goes before the map
// does.
bool QRNH_OBJ_IMG::Renew(ULONG Size, ULONG Sec_Shift)
{
    if ((On_Disk.Sync_Pos.get() | On_Disk.Sync_Tag.get()) != 0 && !Restart()) {
        Map_Is = Map_State::Lost;
        return false;
    }
    ImageHeader Empty{};
    formats::set_new_image(Empty, Size);
    Empty.CreateTime.set(Local_Time());
    Empty.Modify_Time = Empty.CreateTime;
    Map_Is = Map_State::Lost;
    if (!Write_Header(Empty) || !Flush())
        return false;
    Map_Is = Map_State::Whole;
    Root_Dirty = false;
    bool Good = QRNH_Header_New(Size) > 0;
    Header.Sec_Shift.set(Sec_Shift);
    On_Disk.Sec_Shift.set(Sec_Shift);
    Good = Good && Cover() && Flush();
    if (!Good)
        Map_Is = Map_State::Lost;
    return Good;
}

bool QRNH_OBJ_IMG::Restart()
{
    Header.Sync_Pos.set(0);
    Forget_Progress(On_Disk);
    On_Disk.Used = Header.Used;
    On_Disk.Map_Secs = Header.Map_Secs;
    return Write_Header(On_Disk) && Flush();
}

void QRNH_OBJ_IMG::Map_Lacks_Something()
{
    if (Map_Is == Map_State::Whole)
        Map_Is = Map_State::Incomplete;
}

bool QRNH_OBJ_IMG::Holds(ULONG Sector, ULONG Count) const
{
    ULONG End = Smaller<ULONG>(Header.Used.get(), Total_Secs);
    return Sector >= formats::first_block_sector && Sector < End && Count <= End - Sector;
}
