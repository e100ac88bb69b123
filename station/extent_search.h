// SPDX-License-Identifier: MIT
// Answers a client's question where a disk has zeros. No packet says that, so the disk is read: all of a
// stretch of zeros, but of data only the first 64 KB of each megabyte, for a client that asks will read them
// all again. Used by one request at a time; no I/O.
#pragma once

#include <cstdint>
#include <span>

namespace station {

bool all_zeros(std::span<const std::uint8_t> data);

class ExtentSearch {
public:
    static constexpr std::uint32_t piece_bytes_max = 256 << 10;

    ExtentSearch() = default;
    // Of a range within the disk, in whole sectors.
    ExtentSearch(std::uint64_t offset, std::uint32_t length) : offset_(offset), length_(length) {}

    // What has to be read next.
    std::uint64_t piece_offset() const { return offset_ + zeros_; }
    std::uint32_t piece_bytes() const;

    // The piece's content. True when the answer is found.
    bool take(std::span<const std::uint8_t> piece);
    // From the range's start on, so many bytes are zeros, or are to be read.
    bool zeros() const { return zeros_ != 0; }
    std::uint32_t bytes() const;

private:
    static constexpr std::uint32_t probe_bytes = 64 << 10;      // of what may be data
    static constexpr std::uint32_t stretch_bytes = 1 << 20;     // that pass for data when a probe is
    static constexpr std::uint32_t zeros_bytes_max = 16 << 20;  // in one answer
    static constexpr std::uint32_t block_bytes = 4096;          // fewer zeros before data are not told

    // From `at` to the next multiple, not beyond the range.
    std::uint32_t up_to_next(std::uint32_t unit_bytes, std::uint64_t at) const;

    std::uint64_t offset_ = 0;
    std::uint32_t length_ = 0;
    std::uint32_t zeros_ = 0;
};

}  // namespace station
