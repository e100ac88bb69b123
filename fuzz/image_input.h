// SPDX-License-Identifier: MIT
// Image areas for the fuzzer: a sound one, and what the input changes of it.
//
// Input: a byte with the number of changes, then 7 bytes for each: a control byte, a place of 2 bytes, a
// value of 4. They go into the header, or into the tables, which are few and known by their sectors.
#pragma once

#include "formats/image_area.h"
#include "fuzz/input.h"

namespace fuzz {

constexpr std::uint32_t area_sectors = 1024;
constexpr std::uint32_t image_disk_sectors = 1000;

// Chunks 0, 1 and 3 of LUN 0 and chunk 0 of LUN 1, each below tables of its own LUN.
class ImageArea {
public:
    ImageArea() : bytes(area_sectors * formats::sector_bytes)
    {
        formats::set_new_image(header(), image_disk_sectors);
        header().CreateTime.set(0x01D0000000000000);
        header().Modify_Time = header().CreateTime;
        header().Used.set(formats::first_block_sector);
        for (unsigned lun = 0; lun < 2; ++lun)
            add_lun(lun);
        header().Map_Secs.set(7 * formats::map_block_sectors);
        set_checksum();
    }

    void change(Input& input)
    {
        const unsigned changes = input.u8() % 64;
        for (unsigned i = 0; i < changes; ++i) {
            const unsigned control = input.u8();
            const unsigned place = input.u16();
            const std::uint32_t value = input.u32();
            const std::uint32_t table = table_sectors[control % std::size(table_sectors)];
            const unsigned size = table == 0 ? sizeof(formats::ImageHeader) : formats::map_block_bytes;
            auto* at = &bytes[table * formats::sector_bytes + place % (size - 3)];
            std::memcpy(at, &value, control & 0x80 ? 1 : sizeof value);
            if (table == 0 && !(control & 0x40))
                set_checksum();
        }
    }

    formats::ImageHeader& header() { return *reinterpret_cast<formats::ImageHeader*>(bytes.data()); }
    void set_checksum() { header().ChkSum.set(formats::image_checksum(bytes.data())); }

    Bytes bytes;

private:
    // Header, root table, then level 1, level 2 and leaf of both LUNs.
    static constexpr std::uint32_t table_sectors[] = {0, 8, 16, 24, 32, 424, 432, 440};

    std::uint32_t allocate(std::uint32_t count)
    {
        const std::uint32_t sector = header().Used.get();
        header().Used.set(sector + count);
        return sector;
    }
    template <typename Block>
    Block& at(std::uint32_t sector)
    {
        return *reinterpret_cast<Block*>(&bytes[sector * formats::sector_bytes]);
    }
    void add_lun(unsigned lun)
    {
        const std::uint32_t key = formats::chunk_key(lun, 0);
        std::uint32_t sector[3];
        for (std::uint32_t& table : sector)
            table = allocate(formats::map_block_sectors);
        at<formats::RootTable>(formats::root_sector).Level1_Sec[formats::root_index(key)].set(sector[0]);
        at<formats::MapBlock>(sector[0]).Next_Sec[formats::level1_index(key)].set(sector[1]);
        at<formats::MapBlock>(sector[1]).Next_Sec[formats::level2_index(key)].set(sector[2]);
        for (unsigned chunk : {0, 1, 3}) {
            if (lun == 1 && chunk != 0)
                continue;
            formats::Entry_64K& entry = at<formats::LeafBlock>(sector[2]).Chunk[chunk];
            entry.Data_Sec.set(allocate(formats::chunk_sectors));
            entry.ModifyTag.set(1);
            std::memset(entry.SecFlag, chunk == 1 ? 0x3C : 0xFF, sizeof entry.SecFlag);
            std::memset(&bytes[entry.Data_Sec.get() * formats::sector_bytes],
                        0x30 + static_cast<int>(chunk + lun), formats::chunk_bytes);
        }
    }
};

}  // namespace fuzz
