// SPDX-License-Identifier: MIT
// Sizes as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace image_tool {

// "512", "64M", "500m", "2.5T", "4KiB": bytes, or with a suffix K, M, G or T in powers of 1024. A fraction is
// cut to whole sectors. None: not a size, or 0, or more than 64 bits.
std::optional<std::uint64_t> parse_size(std::string_view text);

}  // namespace image_tool
