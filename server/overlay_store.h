// SPDX-License-Identifier: MIT
// A disk made of an image that nobody writes to and a file that holds what one workstation wrote over it.
// No I/O of its own: the file is a block store too, so that tests can cut its power.
//
// One thread reads and writes; flush() may come from another meanwhile. The lock guards the map's dirty pages
// and is not held during a flush of the file.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "formats/overlay.h"
#include "server/block_store.h"

namespace server {

// Names the kernel's run. What was written in it and not flushed is still there in the same run only.
using Session = std::array<std::uint8_t, 16>;

struct OverlayShape {
    std::uint64_t disk_bytes;
    std::uint32_t block_bytes = 4096;
    std::string base;  // the name of the image beneath

    std::uint64_t blocks() const { return (disk_bytes + block_bytes - 1) / block_bytes; }
    std::uint64_t map_bytes() const;  // in whole pages
    std::uint64_t data_offset() const { return formats::overlay_page_bytes + 2 * map_bytes(); }
    std::uint64_t file_bytes() const { return data_offset() + blocks() * block_bytes; }
};

// Throws std::runtime_error that says what is wrong with the header, if the file is no overlay.
OverlayShape overlay_shape(BlockStore& file);

// On a file of shape.file_bytes() that is all zeros. False: errno says why.
bool format_overlay(BlockStore& file, const OverlayShape& shape);

class OverlayStore : public BlockStore {
public:
    // Throws std::runtime_error when the file is no overlay of this base.
    OverlayStore(std::shared_ptr<BlockStore> base, std::unique_ptr<BlockStore> file, const Session& session,
                 const std::string& base_name);

    std::uint64_t size_bytes() const override { return shape_.disk_bytes; }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override;
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override;
    bool flush() override;
    bool hole(std::uint64_t offset, std::uint64_t bytes) override;
    void read_ahead(std::span<ReadAhead> reads) override;
    bool read_now(std::uint64_t offset, std::span<std::uint8_t> out) override;

    std::uint64_t blocks_held() const { return blocks_held_; }
    const OverlayShape& shape() const { return shape_; }

private:
    bool holds(std::uint64_t block) const { return (map_[block / 64] >> block % 64 & 1) != 0; }
    // How much of [offset, end) is all held, or all not.
    std::uint64_t run_end(std::uint64_t offset, std::uint64_t end) const;
    bool base_has_zeros(std::uint64_t offset, std::uint64_t bytes);
    bool write_blocks(std::uint64_t offset, std::span<const std::uint8_t> data);
    bool note_held(std::uint64_t first_block, std::uint64_t last_block);
    void begin_session(const Session& session);

    std::shared_ptr<BlockStore> base_;
    std::unique_ptr<BlockStore> file_;
    OverlayShape shape_;
    std::vector<std::uint64_t> map_;
    std::vector<std::uint8_t> whole_blocks_;  // a write that begins or ends inside of a block
    std::uint64_t blocks_held_ = 0;

    std::mutex lock_;
    std::vector<bool> dirty_pages_;  // of the map: not the same in the file
    std::mutex flush_lock_;          // taken before lock_
};

// What a check of an overlay's file found. `faults` empty: it is whole.
struct OverlayReport {
    OverlayShape shape;
    std::uint64_t blocks_flushed = 0;  // a power cut now would leave these
    std::uint64_t blocks_live = 0;
    bool live_counts = false;  // this kernel has written the live map
    std::vector<std::string> faults;
};
OverlayReport check_overlay(BlockStore& file, const Session& session);

}  // namespace server
