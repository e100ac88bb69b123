// SPDX-License-Identifier: MIT
// The image block object: one LUN's disk in an image area. Tells exactly what is present and what is missing
// at the start of a run. Workers and the synchronisation at PASSIVE_LEVEL; Map_Lock is held for a lookup, not
// for the transfer of data.
//
// Sectors become present after their data is on the disk, so what is read is never a promise. A rewrite that
// fails leaves them present with old or new data; when the new data then goes elsewhere, its writer must
// Forget() them.
#pragma once

#include "driver/block/block_object.h"
#include "driver/image/image_map.h"
#include "driver/image/image_trust.h"
#include "driver/kernel/locks.h"

// Read: the first sector may be here, and cannot be read. No older copy may take its place.
constexpr LONG Img_Failed = -1;

// Tag of a chunk that is being filled, which no copy of a server's chunk has.
constexpr ULONG Tag_In_Work = 0xFFFFFFFF;

class QRNH_IMG_RW : public QRNH_OBJ_RW {
public:
    QRNH_IMG_RW(QRNH_OBJ_IMG* pImage, ULONG New_Lun);

    // Engine sectors, Ctx not looked at. Write returns the bytes written or -n, Read the bytes delivered, -n
    // when so many sectors are missing, or Img_Failed.
    LONG Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;
    LONG Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;
    // The same without the shift of sector numbers.
    virtual LONG Write_Run(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes);
    // One piece: Bytes from sector Off of the chunk, and whatever of the Left bytes lies behind it on the
    // disk as well.
    virtual LONG Write_Chunk(ULONG_PTR Ctx, ULONG Off, ULONG Key, PVOID pBuffer, LONG Left, LONG Bytes);
    virtual LONG Read_Run(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes);
    virtual LONG Read_Chunk(ULONG_PTR Ctx, ULONG Off, ULONG Key, PVOID pBuffer, LONG Left, LONG Bytes);

    // The sectors are no longer present. False when that cannot be done.
    bool Forget(ULONGLONG Sector, LONG Bytes);

    // The caller holds Map_Lock where others use the object.
    formats::Entry_64K* Map_Find(bool Make, ULONG Key) { return Cache.Map_Find(Make, Key); }
    bool Find_Failed() const { return Cache.Failed(); }
    // 0 when there is no entry, or the lookup failed.
    ULONG Entry_Tag(ULONG Key);
    // The chunk's content is no longer valid. False when that cannot be done.
    bool Entry_Reset(ULONG Key);
    bool Entry_Set_Tag(ULONG Key, ULONG Tag);
    // A new header, and nothing of the old map in the cache.
    bool Renew(ULONG Size, ULONG Sec_Shift);

    // Brings map and header to the disk; false when a part of it failed.
    bool Img_Flush();

    formats::ImageHeader& Header() const { return *pHeader; }
    QRNH_OBJ_IMG* Image() const { return Cache.Image(); }

    Busy_Mutex Map_Lock;     // guards the cache, the entries in it, and what follows
    Img_Trust Trust;         // which chunks Read tells of
    bool Keep_Tags = false;  // data is marked present without touching a chunk's tag

private:
    ULONGLONG Shifted(ULONGLONG Sector) const;
    void Entry_Mark(formats::Entry_64K* pEntry, ULONG Off, LONG Bytes);
    LONG Mark_Run(ULONG Off, ULONG Key, LONG Bytes);
    bool Is_Served(ULONG Key) const;
    LONG Read_Extend(ULONG Sector, ULONG Key, LONG Left, LONG Bytes);
    LONG Miss_Len(const formats::Entry_64K* pEntry, ULONG Off, ULONG Key, LONG Left, LONG Bytes);
    LONG Known_Zeros(ULONG Off, ULONG Key, LONG Bytes) const;

    Map_Cache Cache;
    formats::ImageHeader* pHeader;
    ULONG Lun;
    volatile ULONG Renewals = 0;
};
