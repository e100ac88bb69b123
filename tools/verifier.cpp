// SPDX-License-Identifier: MIT
#include "tools/verifier.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include <fmt/format.h>

#include "tools/image_area.h"
#include "tools/map_walk.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

class Verifier {
public:
    explicit Verifier(const AreaFile& area) : area_(area) {}

    Findings run()
    {
        if (read_header()) {
            check_checksum();
            check_constants();
            check_identity();
            check_used();
            check_map_secs();
            check_map();
        }
        return std::move(found_);
    }

private:
    bool read_header();
    void check_checksum();
    void check_constants();
    void check_identity();
    void check_used();
    void check_map_secs();
    void check_map();
    void check_chunk(const MapChunk& chunk);
    void check_place(const MapChunk& chunk);
    void check_counts(const MapWalk& walk);

    void header_fault(std::string what) { found_.fault("header", std::move(what)); }
    // Map sectors of LUN 0; without Sec_Shift the first one is unused.
    std::uint64_t map_sectors() const
    {
        return std::uint64_t{header_.Size.get()} + (header_.Sec_Shift.get() != 0 ? 0 : 1);
    }

    const AreaFile& area_;
    ImageHeader header_{};
    RootTable root_{};
    Findings found_;
    std::uint64_t map_faults_ = 0;
    std::uint64_t empty_chunks_ = 0;
};

bool Verifier::read_header()
{
    if (!area_.read(0, header_))
        header_fault(fmt::format("the area has {} sectors and ends inside its header", area_.sectors()));
    else if (std::memcmp(header_.CmpssFl, image_tag, sizeof header_.CmpssFl) != 0)
        header_fault("no 'CmpssFl' tag: this is no image area, or its second sector is lost");
    else if (header_.Signature.get() == boot_signature)
        header_fault("sector 1 ends in the signature of a boot sector: nobody takes this for a header");
    else
        return true;
    return false;
}

void Verifier::check_checksum()
{
    const std::uint32_t sum = image_checksum(&header_);
    if (header_.ChkSum.get() != sum)
        header_fault(fmt::format("ChkSum is {:08X}, and should be {:08X}", header_.ChkSum.get(), sum));
}

void Verifier::check_constants()
{
    if (std::memcmp(header_.Magic, image_magic, sizeof header_.Magic) != 0)
        header_fault("no 'QRNMDISK' at offset 4");
    const struct {
        const char* name;
        std::uint32_t value, expected;
    } fields[] = {{"Head_Len", header_.Head_Len.get(), image_head_len},
                  {"Hdr_Type", header_.Hdr_Type.get(), image_hdr_type},
                  {"Blk_Size", header_.Blk_Size.get(), map_block_bytes},
                  {"Chunk_Size", header_.Chunk_Size.get(), chunk_bytes},
                  {"Root_Sec", header_.Root_Sec.get(), root_sector}};
    for (const auto& field : fields)
        if (field.value != field.expected)
            header_fault(fmt::format("{} is {}, and should be {}", field.name, field.value, field.expected));
}

void Verifier::check_identity()
{
    if (header_.CreateTime.get() == 0)
        header_fault("CreateTime is 0: copies cannot tell this image from another");
    if (header_.ModifyTag.get() == 0)
        header_fault("ModifyTag is 0: its chunks count as not valid");
    if (header_.Size.get() == 0)
        header_fault("Size is 0: there is no disk in it");
    else if (header_.Sync_Pos.get() >= chunk_count(header_.Size.get()))
        header_fault(fmt::format("Sync_Pos is {}, and the disk has {} chunks", header_.Sync_Pos.get(),
                                 chunk_count(header_.Size.get())));
}

void Verifier::check_used()
{
    const std::uint32_t used = header_.Used.get();
    if (used == root_sector)
        found_.remark("the area is new: it has no root table");
    else if (used < first_block_sector || used % map_block_sectors != 0)
        found_.fault("allocation", fmt::format("Used is {}: no block ends there", used));
    if (used > area_.sectors())
        found_.fault("allocation",
                     fmt::format("Used is {}, and the area has {} sectors", used, area_.sectors()));
}

// What was not handed out for map blocks was for data blocks.
void Verifier::check_map_secs()
{
    const std::uint32_t used = header_.Used.get(), map = header_.Map_Secs.get();
    if (used < root_sector || map % map_block_sectors != 0 || map > used - root_sector ||
        (used - root_sector - map) % chunk_sectors != 0)
        found_.fault("allocation",
                     fmt::format("Map_Secs {} and Used {} do not add up to map and data blocks", map, used));
}

void Verifier::check_map()
{
    const std::uint32_t used = header_.Used.get();
    if (used == root_sector)
        return;
    if (!area_.read(root_sector, root_))
        return found_.fault("map", "the area ends before its root table");
    MapWalk walk(area_, root_, used, [this](MapFault fault, const std::string& what) {
        ++map_faults_;
        found_.fault(to_text(fault), what);
    });
    Progress progress("check", used);
    while (const MapChunk* chunk = walk.next()) {
        check_chunk(*chunk);
        progress.at(std::uint64_t{walk.data_blocks()} * chunk_sectors +
                    std::uint64_t{walk.map_blocks()} * map_block_sectors);
    }
    found_.map_blocks = walk.map_blocks();
    if (empty_chunks_ != 0)
        found_.remark(fmt::format("{} chunks have a tag and no sectors", empty_chunks_));
    if (map_faults_ == 0 && found_.fault_count() == 0)
        check_counts(walk);
}

void Verifier::check_chunk(const MapChunk& chunk)
{
    const Entry_64K& entry = chunk.entry;
    const std::uint32_t tag = entry.ModifyTag.get();
    const unsigned flags = present_sectors(entry);
    const auto fault = [&](std::string_view what) {
        found_.fault(what, fmt::format("chunk key {:08X}: data at {}, tag {:08X}, {} sectors", chunk.key,
                                       entry.Data_Sec.get(), tag, flags));
    };
    ++found_.chunks;
    found_.sectors += flags;
    if (entry.Data_Sec.get() == 0)
        fault("entry without a data block");
    if (tag == 0 && flags != 0)
        fault("flags set in a chunk of tag 0");
    if (tag != 0 && flags == 0)
        ++empty_chunks_;
    if (!is_zero(std::as_bytes(std::span(entry.Reserved_8))))
        fault("reserved bytes of an entry are not 0");
    if (key_lun(chunk.key) == 0)
        check_place(chunk);
}

// The sizes of the other LUNs' disks are not known.
void Verifier::check_place(const MapChunk& chunk)
{
    const std::uint64_t first = std::uint64_t{key_chunk(chunk.key)} * chunk_sectors;
    if (first >= map_sectors())
        return found_.fault(
            "chunk past the disk's end",
            fmt::format("chunk key {:08X}, and the disk has {} sectors", chunk.key, header_.Size.get()));
    for (unsigned i = 0; i < chunk_sectors; ++i)
        if (first + i >= map_sectors() && sector_flag(chunk.entry.SecFlag, i))
            return found_.fault("flag past the disk's end",
                                fmt::format("chunk key {:08X}, sector {}", chunk.key, i));
}

// A workstation that lost its power may have handed out blocks that never came into the map.
void Verifier::check_counts(const MapWalk& walk)
{
    const std::uint32_t map_given = header_.Map_Secs.get() / map_block_sectors - 1;
    const std::uint32_t data_given =
        (header_.Used.get() - root_sector - header_.Map_Secs.get()) / chunk_sectors;
    const struct {
        const char* kind;
        std::uint32_t given, found;
    } counts[] = {{"map", map_given, walk.map_blocks()}, {"data", data_given, walk.data_blocks()}};
    for (const auto& count : counts) {
        if (count.found > count.given)
            found_.fault("allocation", fmt::format("{} {} blocks were handed out, and the map has {}",
                                                   count.given, count.kind, count.found));
        else if (count.found < count.given)
            found_.remark(fmt::format("{} {} blocks were handed out and are not in the map",
                                      count.given - count.found, count.kind));
    }
}

}  // namespace

void Findings::fault(std::string_view kind, std::string what)
{
    auto found = std::ranges::find(faults_, kind, &Kind::name);
    if (found == faults_.end())
        found = faults_.insert(faults_.end(), Kind{kind, 0, {}});
    if (found->count++ < listed_per_kind_max)
        found->first.push_back(std::move(what));
}

std::uint64_t Findings::fault_count() const
{
    return std::accumulate(faults_.begin(), faults_.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const Kind& kind) { return sum + kind.count; });
}

Findings verify(const AreaFile& area)
{
    return Verifier(area).run();
}

}  // namespace image_tool
