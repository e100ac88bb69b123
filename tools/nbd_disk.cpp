// SPDX-License-Identifier: MIT
#include "tools/nbd_disk.h"

#include <algorithm>

#include <libnbd.h>

#include "tools/errors.h"

namespace image_tool {

using namespace formats;

namespace {

constexpr std::uint64_t asked_bytes_max = 1u << 30;

// Of the extents the server tells, how far it is zeros from the start on.
struct Zeros {
    std::uint64_t bytes = 0;
    std::uint64_t data_bytes = 0;  // right behind them
    bool ended = false;
};

int add_extents(void* user, const char*, std::uint64_t, std::uint32_t* entries, std::size_t count, int*)
{
    Zeros& zeros = *static_cast<Zeros*>(user);
    for (std::size_t i = 0; i + 1 < count && !zeros.ended; i += 2)
        if ((entries[i + 1] & LIBNBD_STATE_ZERO) != 0)
            zeros.bytes += entries[i];
        else {
            zeros.data_bytes = entries[i];
            zeros.ended = true;
        }
    return 0;
}

}  // namespace

bool is_nbd_uri(std::string_view name)
{
    const std::string_view scheme = name.substr(0, name.find("://"));
    return scheme.size() < name.size() &&
           (scheme == "nbd" || scheme == "nbds" || scheme.starts_with("nbd+") || scheme.starts_with("nbds+"));
}

void NbdDisk::Close::operator()(nbd_handle* handle) const
{
    nbd_close(handle);
}

void NbdDisk::fail() const
{
    throw ToolError(uri_ + ": " + nbd_get_error());
}

NbdDisk::NbdDisk(const std::string& uri) : uri_(uri), handle_(nbd_create())
{
    if (handle_ == nullptr || nbd_add_meta_context(handle_.get(), LIBNBD_CONTEXT_BASE_ALLOCATION) != 0 ||
        nbd_connect_uri(handle_.get(), uri.c_str()) != 0)
        fail();
    const std::int64_t size = nbd_get_size(handle_.get());
    if (size < 0)
        fail();
    size_bytes_ = static_cast<std::uint64_t>(size);
    size_sectors_ = disk_sectors(uri, size_bytes_);
    tells_holes_ = nbd_can_meta_context(handle_.get(), LIBNBD_CONTEXT_BASE_ALLOCATION) == 1;
}

std::uint64_t NbdDisk::zeros_from(std::uint64_t offset_bytes) const
{
    Zeros zeros;
    const nbd_extent_callback callback = {.callback = add_extents, .user_data = &zeros, .free = nullptr};
    if (nbd_block_status(handle_.get(), std::min(asked_bytes_max, size_bytes_ - offset_bytes), offset_bytes,
                         callback, 0) != 0)
        fail();
    data_start_ = offset_bytes + zeros.bytes;
    data_end_ = data_start_ + zeros.data_bytes;
    return zeros.bytes;
}

std::uint32_t NbdDisk::next_chunk(std::uint32_t from) const
{
    std::uint64_t at = std::uint64_t{from} * chunk_bytes;
    while (tells_holes_ && at < size_bytes_ && (at < data_start_ || at >= data_end_)) {
        const std::uint64_t zeros = zeros_from(at);
        if (zeros < chunk_bytes)
            break;
        at += zeros / chunk_bytes * chunk_bytes;
    }
    return at < size_bytes_ ? static_cast<std::uint32_t>(at / chunk_bytes) : no_chunk;
}

void NbdDisk::read(std::uint32_t chunk, ChunkContents& contents) const
{
    contents = {};
    const std::uint64_t start = std::uint64_t{chunk} * chunk_bytes;
    if (start >= size_bytes_)
        return;
    const std::uint64_t size = std::min<std::uint64_t>(chunk_bytes, size_bytes_ - start);
    if (nbd_pread(handle_.get(), contents.data, size, start, 0) != 0)
        fail();
    for (unsigned i = 0; i < size / sector_bytes; ++i)
        contents.present.set(i);
}

}  // namespace image_tool
