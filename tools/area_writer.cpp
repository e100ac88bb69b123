// SPDX-License-Identifier: MIT
#include "tools/area_writer.h"

#include <algorithm>

#include <fmt/format.h>

#include "tools/errors.h"

namespace image_tool {

using namespace formats;

AreaWriter::AreaWriter(OutputFile& file, std::uint32_t disk_sectors, std::uint32_t limit_sectors,
                       std::uint32_t modify_tag)
    : file_(file), limit_sectors_(limit_sectors)
{
    // An area that was there before is none until this one is finished.
    write(0, header_);
    set_new_image(header_, disk_sectors);
    header_.ModifyTag.set(modify_tag);
    sector_[0] = allocate(map_block_sectors);
}

void AreaWriter::add(std::uint32_t chunk, std::uint32_t tag, std::span<const std::byte> data)
{
    const std::uint64_t left = header_.Size.get() - std::uint64_t{chunk} * chunk_sectors;
    const auto present_sectors = static_cast<unsigned>(std::min<std::uint64_t>(left, chunk_sectors));
    enter(chunk_key(0, std::uint64_t{chunk} * chunk_sectors));
    Entry_64K& entry = leaf_.Chunk[leaf_index(key_)];
    entry.Data_Sec.set(allocate(chunk_sectors));
    entry.ModifyTag.set(tag);
    for (unsigned i = 0; i < present_sectors; ++i)
        entry.SecFlag[i / 8] = static_cast<std::uint8_t>(entry.SecFlag[i / 8] | 1 << i % 8);
    file_.write(std::uint64_t{entry.Data_Sec.get()} * sector_bytes, data);
}

void AreaWriter::finish(std::uint64_t create_time, std::uint64_t modify_time, std::uint64_t previous_time)
{
    for (unsigned level = 0; level < sector_.size(); ++level)
        close(level);
    header_.CreateTime.set(create_time);
    header_.Modify_Time.set(modify_time);
    header_.Prev_Time.set(previous_time);
    header_.ChkSum.set(image_checksum(&header_));
    write(0, header_);
}

std::uint32_t AreaWriter::allocate(std::uint32_t sectors)
{
    const std::uint32_t sector = header_.Used.get();
    if (limit_sectors_ < sector || sectors > limit_sectors_ - sector)
        throw ToolError(
            fmt::format("the disk's contents do not fit into an area of {} sectors", limit_sectors_));
    header_.Used.set(sector + sectors);
    if (sectors == map_block_sectors)
        header_.Map_Secs.set(header_.Map_Secs.get() + sectors);
    return sector;
}

// Opens the blocks on the way to the key that are not open.
void AreaWriter::enter(std::uint32_t key)
{
    static constexpr unsigned key_shift[] = {0, 25, 17, 7};
    for (unsigned level = 1; level < sector_.size(); ++level)
        if (sector_[level] == 0 || key >> key_shift[level] != key_ >> key_shift[level])
            open(level, key);
    key_ = key;
}

void AreaWriter::open(unsigned level, std::uint32_t key)
{
    const unsigned index[] = {root_index(key), level1_index(key), level2_index(key)};
    close(level);
    sector_[level] = allocate(map_block_sectors);
    table_[level - 1].Next_Sec[index[level - 1]].set(sector_[level]);
}

// Chunks come in ascending order: a block that is left is complete.
void AreaWriter::close(unsigned level)
{
    if (sector_[level] == 0)
        return;
    if (level < table_.size()) {
        write(sector_[level], table_[level]);
        table_[level] = {};
    } else {
        write(sector_[level], leaf_);
        leaf_ = {};
    }
}

template <typename Object>
void AreaWriter::write(std::uint32_t sector, const Object& object)
{
    file_.write(std::uint64_t{sector} * sector_bytes, std::as_bytes(std::span(&object, 1)));
}

}  // namespace image_tool
