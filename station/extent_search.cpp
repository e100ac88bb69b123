// SPDX-License-Identifier: MIT
#include "station/extent_search.h"

#include <algorithm>
#include <cstring>

namespace station {

bool all_zeros(std::span<const std::uint8_t> data)
{
    return data.empty() || (data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

std::uint32_t ExtentSearch::up_to_next(std::uint32_t unit_bytes, std::uint64_t at) const
{
    const auto rest = static_cast<std::uint32_t>(unit_bytes - at % unit_bytes);
    return std::min(rest, length_ - static_cast<std::uint32_t>(at - offset_));
}

std::uint32_t ExtentSearch::piece_bytes() const
{
    return up_to_next(zeros_ == 0 ? probe_bytes : piece_bytes_max, piece_offset());
}

bool ExtentSearch::take(std::span<const std::uint8_t> piece)
{
    const std::uint64_t start = piece_offset();
    std::uint32_t taken = 0;
    while (taken < piece.size()) {
        const std::uint32_t block = std::min(up_to_next(block_bytes, start + taken),
                                             static_cast<std::uint32_t>(piece.size()) - taken);
        if (!all_zeros(piece.subspan(taken, block)))
            break;
        taken += block;
    }
    zeros_ += taken;
    return taken < piece.size() || zeros_ == length_ || zeros_ >= zeros_bytes_max;
}

std::uint32_t ExtentSearch::bytes() const
{
    return zeros() ? zeros_ : up_to_next(stretch_bytes, offset_);
}

}  // namespace station
