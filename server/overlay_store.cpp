// SPDX-License-Identifier: MIT
#include "server/overlay_store.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

namespace server {

using formats::overlay_page_bytes;
using formats::OverlayHeader;

namespace {

constexpr std::uint64_t words_per_page = overlay_page_bytes / sizeof(std::uint64_t);

OverlayHeader make_header(const OverlayShape& shape, const Session& session)
{
    OverlayHeader header{};
    std::memcpy(header.Signature, formats::overlay_signature, sizeof header.Signature);
    header.Version.set(formats::overlay_version);
    header.Block_Bytes.set(shape.block_bytes);
    header.Disk_Bytes.set(shape.disk_bytes);
    header.Map_Offset.set(overlay_page_bytes);
    header.Live_Offset.set(overlay_page_bytes + shape.map_bytes());
    header.Data_Offset.set(shape.data_offset());
    std::ranges::copy(session, header.Session);
    std::copy_n(shape.base.begin(), std::min(shape.base.size(), sizeof header.Base - 1), header.Base);
    header.Checksum.set(formats::overlay_checksum(header));
    return header;
}

std::span<std::uint8_t> bytes_of(OverlayHeader& header)
{
    return {reinterpret_cast<std::uint8_t*>(&header), sizeof header};
}

[[noreturn]] void refuse(const std::string& reason)
{
    throw std::runtime_error(reason);
}

OverlayHeader read_header(BlockStore& file)
{
    OverlayHeader header;
    if (file.size_bytes() < overlay_page_bytes || !file.read(0, bytes_of(header)) ||
        std::memcmp(header.Signature, formats::overlay_signature, sizeof header.Signature) != 0)
        refuse("is no overlay");
    if (header.Checksum.get() != formats::overlay_checksum(header))
        refuse("the header of the overlay is damaged");
    if (header.Version.get() != formats::overlay_version)
        refuse(fmt::format("is an overlay of version {}, and this is version {}", header.Version.get(),
                           formats::overlay_version));
    return header;
}

OverlayShape shape_of(const OverlayHeader& header, std::uint64_t file_bytes)
{
    OverlayShape shape{header.Disk_Bytes.get(), header.Block_Bytes.get(),
                       std::string(header.Base, strnlen(header.Base, sizeof header.Base))};
    if (!std::has_single_bit(shape.block_bytes) || shape.block_bytes < formats::overlay_block_bytes_min ||
        shape.block_bytes > formats::overlay_block_bytes_max)
        refuse(fmt::format("the overlay has blocks of {} bytes", shape.block_bytes));
    if (shape.disk_bytes == 0 || shape.disk_bytes % 512 != 0 || shape.disk_bytes > file_bytes)
        refuse(fmt::format("the overlay is of a disk of {} bytes", shape.disk_bytes));
    if (header.Map_Offset.get() != overlay_page_bytes ||
        header.Live_Offset.get() != overlay_page_bytes + shape.map_bytes() ||
        header.Data_Offset.get() != shape.data_offset())
        refuse("the parts of the overlay are not where they belong");
    if (file_bytes < shape.file_bytes())
        refuse("the overlay is cut short");
    return shape;
}

std::vector<std::uint64_t> read_map(BlockStore& file, std::uint64_t offset, const OverlayShape& shape)
{
    std::vector<std::uint64_t> map(shape.map_bytes() / sizeof(std::uint64_t));
    if (!file.read(offset, {reinterpret_cast<std::uint8_t*>(map.data()), map.size() * sizeof map[0]}))
        refuse("the map of the overlay cannot be read");
    return map;
}

std::span<const std::uint8_t> page_of(const std::vector<std::uint64_t>& map, std::size_t page)
{
    return {reinterpret_cast<const std::uint8_t*>(map.data() + page * words_per_page), overlay_page_bytes};
}

std::uint64_t count_bits(const std::vector<std::uint64_t>& map)
{
    std::uint64_t count = 0;
    for (const std::uint64_t word : map)
        count += static_cast<std::uint64_t>(std::popcount(word));
    return count;
}

bool all_zeros(std::span<const std::uint8_t> data)
{
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
}

}  // namespace

std::uint64_t OverlayShape::map_bytes() const
{
    const std::uint64_t bits_per_page = std::uint64_t{overlay_page_bytes} * 8;
    return (blocks() + bits_per_page - 1) / bits_per_page * overlay_page_bytes;
}

OverlayShape overlay_shape(BlockStore& file)
{
    return shape_of(read_header(file), file.size_bytes());
}

bool format_overlay(BlockStore& file, const OverlayShape& shape)
{
    OverlayHeader header = make_header(shape, Session{});
    return file.write(0, bytes_of(header)) && file.flush();
}

OverlayStore::OverlayStore(std::shared_ptr<BlockStore> base, std::unique_ptr<BlockStore> file,
                           const Session& session, const std::string& base_name)
    : base_(std::move(base)), file_(std::move(file))
{
    const OverlayHeader header = read_header(*file_);
    shape_ = shape_of(header, file_->size_bytes());
    if (shape_.base != base_name)
        refuse(fmt::format("the overlay is one of {} and not of {}", shape_.base, base_name));
    if (shape_.disk_bytes != base_->size_bytes())
        refuse(fmt::format("the overlay is of a disk of {} bytes, and {} has {}", shape_.disk_bytes,
                           base_name, base_->size_bytes()));
    map_ = read_map(*file_, overlay_page_bytes, shape_);
    dirty_pages_.resize(shape_.map_bytes() / overlay_page_bytes);
    if (std::ranges::equal(session, header.Session)) {
        const std::vector<std::uint64_t> flushed = std::move(map_);
        map_ = read_map(*file_, header.Live_Offset.get(), shape_);
        for (std::size_t page = 0; page < dirty_pages_.size(); ++page)
            dirty_pages_[page] = !std::ranges::equal(page_of(flushed, page), page_of(map_, page));
    } else {
        begin_session(session);
    }
    blocks_held_ = count_bits(map_);
}

// The live map of another run of the kernel may tell of blocks that were never brought down.
void OverlayStore::begin_session(const Session& session)
{
    const std::uint64_t live_offset = overlay_page_bytes + shape_.map_bytes();
    const std::vector<std::uint64_t> live = read_map(*file_, live_offset, shape_);
    for (std::size_t page = 0; page < dirty_pages_.size(); ++page)
        if (!std::ranges::equal(page_of(live, page), page_of(map_, page)) &&
            !file_->write(live_offset + page * overlay_page_bytes, page_of(map_, page)))
            refuse("the overlay cannot be written to");
    OverlayHeader header = make_header(shape_, session);
    if (!file_->flush() || !file_->write(0, bytes_of(header)) || !file_->flush())
        refuse("the overlay cannot be written to");
}

std::uint64_t OverlayStore::run_end(std::uint64_t offset, std::uint64_t end) const
{
    const bool held = holds(offset / shape_.block_bytes);
    std::uint64_t at = (offset / shape_.block_bytes + 1) * shape_.block_bytes;
    while (at < end && holds(at / shape_.block_bytes) == held)
        at += shape_.block_bytes;
    return std::min(at, end);
}

bool OverlayStore::read(std::uint64_t offset, std::span<std::uint8_t> out)
{
    while (!out.empty()) {
        const std::uint64_t bytes = run_end(offset, offset + out.size()) - offset;
        const auto part = out.first(static_cast<std::size_t>(bytes));
        const bool held = holds(offset / shape_.block_bytes);
        if (!(held ? file_->read(shape_.data_offset() + offset, part) : base_->read(offset, part)))
            return false;
        out = out.subspan(part.size());
        offset += bytes;
    }
    return true;
}

bool OverlayStore::hole(std::uint64_t offset, std::uint64_t bytes)
{
    const std::uint64_t end = offset + bytes;
    while (offset < end) {
        const std::uint64_t run = run_end(offset, end) - offset;
        if (!(holds(offset / shape_.block_bytes) ? file_->hole(shape_.data_offset() + offset, run)
                                                 : base_->hole(offset, run)))
            return false;
        offset += run;
    }
    return true;
}

// Those that lie in the image or in the file as a whole.
void OverlayStore::read_ahead(std::span<ReadAhead> reads)
{
    for (const bool in_file : {false, true}) {
        std::array<ReadAhead, reads_ahead_max> there{};
        std::array<ReadAhead*, reads_ahead_max> asked{};
        std::size_t count = 0;
        for (ReadAhead& read : reads) {
            const std::uint64_t end = read.offset + read.out.size();
            if (holds(read.offset / shape_.block_bytes) != in_file || run_end(read.offset, end) != end)
                continue;
            there[count] = {read.offset + (in_file ? shape_.data_offset() : 0), read.out};
            asked[count++] = &read;
        }
        if (count == 0)
            continue;
        (in_file ? *file_ : *base_).read_ahead(std::span(there).first(count));
        for (std::size_t i = 0; i < count; ++i)
            asked[i]->done = there[i].done;
    }
}

bool OverlayStore::read_now(std::uint64_t offset, std::span<std::uint8_t> out)
{
    const std::uint64_t end = offset + out.size();
    if (run_end(offset, end) != end)
        return false;
    return holds(offset / shape_.block_bytes) ? file_->read_now(shape_.data_offset() + offset, out)
                                              : base_->read_now(offset, out);
}

bool OverlayStore::base_has_zeros(std::uint64_t offset, std::uint64_t bytes)
{
    return run_end(offset, offset + bytes) == offset + bytes && !holds(offset / shape_.block_bytes) &&
           base_->hole(offset, bytes);
}

bool OverlayStore::write(std::uint64_t offset, std::span<const std::uint8_t> data)
{
    if (all_zeros(data) && base_has_zeros(offset, data.size()))
        return true;
    const std::uint64_t block = shape_.block_bytes, end = offset + data.size();
    const std::uint64_t begin_whole = offset / block * block;
    const std::uint64_t end_whole = std::min((end + block - 1) / block * block, shape_.disk_bytes);
    const bool fills_head = begin_whole != offset && !holds(offset / block);
    const bool fills_tail = end_whole != end && !holds((end - 1) / block);
    if (!fills_head && !fills_tail)
        return write_blocks(offset, data);
    // A block that is held is held whole.
    const std::uint64_t begin = fills_head ? begin_whole : offset;
    whole_blocks_.resize(static_cast<std::size_t>((fills_tail ? end_whole : end) - begin));
    const auto whole = std::span(whole_blocks_);
    const auto head = whole.first(static_cast<std::size_t>(offset - begin));
    const auto tail = whole.subspan(head.size() + data.size());
    if ((!head.empty() && !base_->read(begin, head)) || (!tail.empty() && !base_->read(end, tail)))
        return false;
    std::ranges::copy(data, whole.begin() + static_cast<std::ptrdiff_t>(head.size()));
    return write_blocks(begin, whole);
}

bool OverlayStore::write_blocks(std::uint64_t offset, std::span<const std::uint8_t> data)
{
    return file_->write(shape_.data_offset() + offset, data) &&
           note_held(offset / shape_.block_bytes, (offset + data.size() - 1) / shape_.block_bytes);
}

// The live map follows the data, so that a server that is killed here has written nothing yet.
bool OverlayStore::note_held(std::uint64_t first_block, std::uint64_t last_block)
{
    const std::uint64_t live_offset = overlay_page_bytes + shape_.map_bytes();
    for (std::uint64_t word = first_block / 64; word <= last_block / 64; ++word) {
        const std::uint64_t from = std::max(first_block, word * 64) % 64;
        const std::uint64_t to = std::min(last_block, word * 64 + 63) % 64;
        const std::uint64_t bits = ~std::uint64_t{0} >> (63 - (to - from)) << from;
        const std::uint64_t value = map_[word] | bits;
        if (value == map_[word])
            continue;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
        if (!file_->write(live_offset + word * sizeof value, {bytes, sizeof value}))
            return false;
        blocks_held_ += static_cast<std::uint64_t>(std::popcount(value) - std::popcount(map_[word]));
        std::lock_guard guard(lock_);
        map_[word] = value;
        dirty_pages_[word / words_per_page] = true;
    }
    return true;
}

bool OverlayStore::flush()
{
    std::lock_guard one_flush(flush_lock_);
    std::vector<std::pair<std::size_t, std::vector<std::uint8_t>>> pages;
    {
        std::lock_guard guard(lock_);
        for (std::size_t page = 0; page < dirty_pages_.size(); ++page)
            if (dirty_pages_[page]) {
                const auto content = page_of(map_, page);
                pages.emplace_back(page, std::vector<std::uint8_t>(content.begin(), content.end()));
                dirty_pages_[page] = false;
            }
    }
    bool good = file_->flush();
    for (const auto& [page, content] : pages)
        good = good && file_->write(overlay_page_bytes + page * overlay_page_bytes, content);
    if (good && (pages.empty() || file_->flush()))
        return true;
    std::lock_guard guard(lock_);
    for (const auto& [page, content] : pages)
        dirty_pages_[page] = true;
    return false;
}

OverlayReport check_overlay(BlockStore& file, const Session& session)
{
    OverlayReport report;
    try {
        const OverlayHeader header = read_header(file);
        report.shape = shape_of(header, file.size_bytes());
        report.live_counts = std::ranges::equal(session, header.Session);
        const auto flushed = read_map(file, overlay_page_bytes, report.shape);
        const auto live = read_map(file, header.Live_Offset.get(), report.shape);
        report.blocks_flushed = count_bits(flushed);
        report.blocks_live = count_bits(live);
        const auto beyond = [&](const std::vector<std::uint64_t>& map) {
            for (std::uint64_t block = report.shape.blocks(); block < map.size() * 64; ++block)
                if ((map[block / 64] >> block % 64 & 1) != 0)
                    return true;
            return false;
        };
        if (beyond(flushed))
            report.faults.emplace_back("the map holds blocks behind the end of the disk");
        if (report.live_counts && beyond(live))
            report.faults.emplace_back("the live map holds blocks behind the end of the disk");
        if (report.live_counts)
            for (std::size_t word = 0; word < live.size(); ++word)
                if ((flushed[word] & ~live[word]) != 0) {
                    report.faults.emplace_back("the live map lacks blocks that were flushed");
                    break;
                }
    } catch (const std::runtime_error& error) {
        report.faults.emplace_back(error.what());
    }
    return report;
}

}  // namespace server
