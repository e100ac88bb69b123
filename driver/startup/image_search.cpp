// SPDX-License-Identifier: MIT
#include "driver/startup/image_search.h"

#include "driver/kernel/bytes.h"
#include "driver/kernel/pool.h"
#include "driver/startup/low_memory.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"
#include "formats/image_descriptor.h"

namespace {

using HDD_Desc = formats::ImageDescriptor;

// Fields of the first partition entry of a partition sector.
constexpr ULONG First_Partition_Start = 454;
constexpr ULONG First_Partition_Sectors = 458;

// LUN 0 as made from an image: 16 KB packets, split writes, 4 slots, no retry budget.
constexpr UCHAR Image_Packet_KB = 0xF0;
constexpr UCHAR Image_Disk_Flags = formats::disk_flag_split_writes | 4;

bool Is_Descriptor(const UCHAR* pMemory)
{
    auto pDesc = reinterpret_cast<const HDD_Desc*>(pMemory);
    return Bytes_Equal(pDesc->Mark, formats::image_descriptor_mark, sizeof pDesc->Mark) &&
           pDesc->Kind.get() == formats::image_descriptor_kind;
}

// A copy of the partition sector; zeros when the descriptor points outside low memory.
UCHAR* Save_Partition_Sector(const Low_Memory& Memory, ULONG Offset)
{
    auto pSector =
        static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, formats::sector_bytes, Tag_Memory));
    if (!pSector)
        return nullptr;
    auto pDesc = reinterpret_cast<const HDD_Desc*>(Memory.At(Offset));
    ULONG Source = Offset + formats::image_descriptor_jump_bytes + pDesc->Displacement.get();
    if (Source + formats::sector_bytes <= formats::low_memory_bytes)
        RtlCopyMemory(pSector, Memory.At(Source), formats::sector_bytes);
    else
        RtlZeroMemory(pSector, formats::sector_bytes);
    return pSector;
}

void Image_Becomes_Lun_0(const UCHAR* pSector)
{
    auto Field = [pSector](ULONG Offset) {
        return reinterpret_cast<const formats::Le32*>(pSector + Offset)->get();
    };
    formats::Disk_Info& Disk = Boot_Param.Disks[0];
    Disk.Disk_Secs.set(Field(First_Partition_Start) + Field(First_Partition_Sectors) + 1);
    Disk.Read_KB = Image_Packet_KB;
    Disk.Write_KB = Image_Packet_KB;
    Disk.Disk_Flags = Image_Disk_Flags;
    Disk.Retry_Mins = 0;
    ++Boot_Param.Disk_Nums;
    Boot_Param.Lun_Nums = 1;
    Boot_Param.Boot_Mode.set(formats::boot_mode_local_image);
    KeSetEvent(&Start_Event, IO_NO_INCREMENT, FALSE);
}

void Use_Descriptor(const Low_Memory& Memory, ULONG Offset)
{
    pSaved_MBR = Save_Partition_Sector(Memory, Offset);
    if (!pSaved_MBR)
        return;
    if (Boot_Param.Lun_Nums == 0)
        Image_Becomes_Lun_0(pSaved_MBR);
    DbgPrint("\nQRN SCSI: %02X %02d VDD Size: %X", Boot_Param.Boot_Mode.get(), Boot_Param.Lun_Nums,
             Boot_Param.Disks[0].Disk_Secs.get());
}

}  // namespace

void Find_HDD_Image()
{
    ULONG Offset = 0;
    {
        Low_Memory Memory;
        if (Memory.Mapped()) {
            Offset = Memory.Search(Is_Descriptor);
            if (Offset < formats::low_memory_search_end)
                Use_Descriptor(Memory, Offset);
        }
    }
    DbgPrint("\nQRN SCSI: Find HDD Image=%X, %p", Paragraph(Offset), pSaved_MBR);
    KeInitializeEvent(&Img_Lock, SynchronizationEvent, TRUE);
}
