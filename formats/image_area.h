// SPDX-License-Identifier: MIT
// The image area: a partition of a local disk, or a server's file, that holds chunks of virtual disks;
// and the partition table that says where on a local disk the areas are.
//
// Sector numbers count from the first sector of the area. Sectors 0 and 1 are the header, 8 to 15 the
// root table; from sector 16 on map blocks and data blocks follow in the order they were handed out.
// docs/image-format.md tells the whole story.
#pragma once

#include "formats/boot_block.h"
#include "formats/endian.h"

namespace formats {

// Sectors 0 and 1.
struct ImageHeader {
    Le32 Head_Len;  // image_head_len
    char Magic[9];
    std::uint8_t Reserved_13;
    Le64 Prev_Time;  // Modify_Time before the last modifying open
    Le64 Modify_Time;
    Le32 Size;  // of the disk that the image holds, in sectors
    std::uint8_t Reserved_34[8];
    Le64 CreateTime;  // which image this is: copies carry their original's
    Le32 Hdr_Type;
    std::uint8_t Reserved_54[16];
    Le32 ModifyTag;
    Le32 ChkSum;  // image_checksum() of all before it
    std::uint8_t Reserved_78[166];
    Le32 Sync_Tag;  // ModifyTag of the server image that Sync_Pos refers to
    Le32 Sync_Pos;  // last chunk handled by the synchronisation
    std::uint8_t Reserved_252[260];
    char CmpssFl[8];
    Le32 Sec_Shift;  // not 0: the disk's LBA k is map sector k, else map sector k + 1
    Le32 Blk_Size;
    Le32 Chunk_Size;
    Le32 Root_Sec;
    Le32 Used;  // next free sector
    std::uint8_t Reserved_540[4];
    Le32 Map_Secs;  // sectors handed out for map blocks, the root table included
    std::uint8_t Reserved_548[474];
    Le16 Signature;  // never boot_signature
};

constexpr unsigned image_header_bytes = 1024;
constexpr std::uint32_t image_head_len = 78;
constexpr unsigned image_checksum_offset = 74;
constexpr char image_magic[] = "QRNMDISK";
constexpr char image_tag[] = "CmpssFl";
constexpr std::uint32_t image_hdr_type = 6;
constexpr std::uint16_t boot_signature = 0xAA55;

constexpr unsigned chunk_sectors = 128;  // also a data block
constexpr unsigned chunk_bytes = chunk_sectors * sector_bytes;
constexpr unsigned map_block_sectors = 8;
constexpr unsigned map_block_bytes = map_block_sectors * sector_bytes;
constexpr std::uint32_t root_sector = 8;  // Used of a header whose root table is not there yet
constexpr std::uint32_t first_block_sector = root_sector + map_block_sectors;

constexpr unsigned root_entries = 128;
constexpr unsigned root_bytes = root_entries * sizeof(Le32);  // of the root table's block
constexpr unsigned map_entries = 1024;
constexpr unsigned leaf_entries = 128;

// One 64 KB chunk, in a leaf block.
struct Entry_64K {
    Le32 Data_Sec;   // first sector of its data block; 0: none
    Le32 ModifyTag;  // 0: the content is not valid
    std::uint8_t Reserved_8[8];
    std::uint8_t SecFlag[chunk_sectors / 8];  // see sector_flag()
};

// The other levels: sectors of blocks of the next level, 0 for none.
struct RootTable {
    Le32 Level1_Sec[root_entries];
};
struct MapBlock {
    Le32 Next_Sec[map_entries];
};
struct LeafBlock {
    Entry_64K Chunk[leaf_entries];
};

// Names a chunk of a LUN: 3 bits LUN, 29 bits chunk number.
constexpr std::uint32_t chunk_key(std::uint32_t lun, std::uint64_t sector)
{
    return (lun << 4 | (static_cast<std::uint32_t>(sector >> 32) & 15)) << 25 |
           static_cast<std::uint32_t>(sector) >> 7;
}
constexpr unsigned key_lun_shift = 29;
constexpr unsigned key_luns = 8;

constexpr std::uint32_t key_lun(std::uint32_t key)
{
    return key >> key_lun_shift;
}
constexpr std::uint32_t key_chunk(std::uint32_t key)
{
    return key & ((1u << key_lun_shift) - 1);
}

// The index of a key's entry in each level. Bits 25 and 26 count in the root table and in level 1, so a
// level-1 block has entries only where the two top bits of the index are those of its root index.
constexpr unsigned root_index(std::uint32_t key)
{
    return key >> 25;
}
constexpr unsigned level1_index(std::uint32_t key)
{
    return key >> 17 & 0x3FF;
}
constexpr unsigned level2_index(std::uint32_t key)
{
    return key >> 7 & 0x3FF;
}
constexpr unsigned leaf_index(std::uint32_t key)
{
    return key & 0x7F;
}

// Whether sector 0 to 127 of a chunk is present.
constexpr bool sector_flag(const std::uint8_t (&flags)[chunk_sectors / 8], unsigned sector)
{
    return (flags[sector / 8] >> sector % 8 & 1) != 0;
}

// Over the first image_checksum_offset bytes of a header as it is stored.
inline std::uint32_t image_checksum(const void* header)
{
    const auto* bytes = static_cast<const std::uint8_t*>(header);
    std::uint32_t sum = 0;
    for (unsigned i = 0; i < image_checksum_offset; ++i)
        sum += bytes[i];
    return sum != 0 ? sum : 0xFFFFFFFF;
}

// Whether the sectors are a header at all; their checksum is another matter.
constexpr bool is_image_header(const ImageHeader& header)
{
    for (unsigned i = 0; i < sizeof header.CmpssFl; ++i)
        if (header.CmpssFl[i] != image_tag[i])
            return false;
    return header.Signature.get() != boot_signature;
}

// Everything of a new header but its times, its root table and its checksum, in a header of zeros; size in
// sectors.
constexpr void set_new_image(ImageHeader& header, std::uint32_t size)
{
    header.Head_Len.set(image_head_len);
    for (unsigned i = 0; i < sizeof header.Magic; ++i)
        header.Magic[i] = image_magic[i];
    for (unsigned i = 0; i < sizeof header.CmpssFl; ++i)
        header.CmpssFl[i] = image_tag[i];
    header.Size.set(size);
    header.Hdr_Type.set(image_hdr_type);
    header.ModifyTag.set(1);
    header.Sec_Shift.set(1);
    header.Blk_Size.set(map_block_bytes);
    header.Chunk_Size.set(chunk_bytes);
    header.Root_Sec.set(root_sector);
    header.Used.set(root_sector);
}

static_assert(sizeof(ImageHeader) == image_header_bytes);
static_assert(offsetof(ImageHeader, Magic) == 4);
static_assert(offsetof(ImageHeader, Prev_Time) == 14);
static_assert(offsetof(ImageHeader, Modify_Time) == 22);
static_assert(offsetof(ImageHeader, Size) == 30);
static_assert(offsetof(ImageHeader, CreateTime) == 42);
static_assert(offsetof(ImageHeader, Hdr_Type) == 50);
static_assert(offsetof(ImageHeader, ModifyTag) == 70);
static_assert(offsetof(ImageHeader, ChkSum) == image_checksum_offset);
static_assert(offsetof(ImageHeader, ChkSum) + sizeof(Le32) == image_head_len);
static_assert(offsetof(ImageHeader, Sync_Tag) == 244);
static_assert(offsetof(ImageHeader, Sync_Pos) == 248);
static_assert(offsetof(ImageHeader, CmpssFl) == 512);
static_assert(offsetof(ImageHeader, Sec_Shift) == 520);
static_assert(offsetof(ImageHeader, Blk_Size) == 524);
static_assert(offsetof(ImageHeader, Chunk_Size) == 528);
static_assert(offsetof(ImageHeader, Root_Sec) == 532);
static_assert(offsetof(ImageHeader, Used) == 536);
static_assert(offsetof(ImageHeader, Map_Secs) == 544);
static_assert(offsetof(ImageHeader, Signature) == 1022);
static_assert(sizeof image_magic == sizeof(ImageHeader::Magic));
static_assert(sizeof image_tag == sizeof(ImageHeader::CmpssFl));

static_assert(sizeof(Entry_64K) == 32);
static_assert(offsetof(Entry_64K, ModifyTag) == 4);
static_assert(offsetof(Entry_64K, SecFlag) == 16);
static_assert(sizeof(RootTable) == root_bytes && root_bytes == sector_bytes);
static_assert(sizeof(MapBlock) == map_block_bytes);
static_assert(sizeof(LeafBlock) == map_block_bytes);

// Sector 0 of a local disk.
struct PartitionEntry {
    std::uint8_t Boot;
    std::uint8_t First_Chs[3];
    std::uint8_t Type;
    std::uint8_t Last_Chs[3];
    Le32 Start;  // sector of the disk
    Le32 Count;  // sectors
};

constexpr unsigned partition_count = 4;
constexpr std::uint8_t partition_system_image = 0x51;
constexpr std::uint8_t partition_temporary_image = 0x52;

struct PartitionSector {
    std::uint8_t Code[446];
    PartitionEntry Partition[partition_count];
    Le16 Signature;  // boot_signature
};

static_assert(sizeof(PartitionEntry) == 16);
static_assert(offsetof(PartitionEntry, Type) == 4);
static_assert(offsetof(PartitionEntry, Start) == 8);
static_assert(offsetof(PartitionEntry, Count) == 12);
static_assert(sizeof(PartitionSector) == sector_bytes);
static_assert(offsetof(PartitionSector, Partition) == 446);

// Whether a partition shares sectors with another one of the table: an area there would hold what others write.
inline bool overlaps_another(const PartitionSector& table, const PartitionEntry& area)
{
    const std::uint64_t start = area.Start.get(), end = start + area.Count.get();
    for (const PartitionEntry& entry : table.Partition) {
        const std::uint64_t other = entry.Start.get();
        if (&entry != &area && entry.Type != 0 && other < end && start < other + entry.Count.get())
            return true;
    }
    return false;
}

}  // namespace formats
