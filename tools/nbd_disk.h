// SPDX-License-Identifier: MIT
// A disk that an NBD server exports, named by its URI.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tools/disk_contents.h"

struct nbd_handle;

namespace image_tool {

// nbd://, nbd+unix:// and their like.
bool is_nbd_uri(std::string_view name);

class NbdDisk : public DiskContents {
public:
    // Throws ToolError when nobody answers or the export is no disk of whole sectors.
    explicit NbdDisk(const std::string& uri);

    std::uint32_t size_sectors() const override { return size_sectors_; }
    // Holes that the server tells of are passed over.
    std::uint32_t next_chunk(std::uint32_t from) const override;
    void read(std::uint32_t chunk, ChunkContents& contents) const override;

private:
    struct Close {
        void operator()(nbd_handle* handle) const;
    };

    [[noreturn]] void fail() const;
    std::uint64_t zeros_from(std::uint64_t offset_bytes) const;

    std::string uri_;
    std::unique_ptr<nbd_handle, Close> handle_;
    std::uint64_t size_bytes_ = 0;
    std::uint32_t size_sectors_ = 0;
    bool tells_holes_ = false;
    // What the server has last called data: asking again for each chunk could cost it a look at the disk.
    mutable std::uint64_t data_start_ = 0, data_end_ = 0;
};

}  // namespace image_tool
