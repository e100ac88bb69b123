// SPDX-License-Identifier: MIT
#include "tools/size_text.h"

#include <cctype>
#include <charconv>

#include "formats/boot_block.h"

namespace image_tool {

namespace {

// The power of 1024 that "", "b", "k", "kb", "KiB" and so on stand for.
std::optional<unsigned> power_of(std::string_view suffix)
{
    constexpr std::string_view letters = "kmgt";
    if (suffix.empty())
        return 0;
    const auto lower = [](char letter) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    };
    const std::size_t index = letters.find(lower(suffix[0]));
    if (index == letters.npos)
        return {};
    suffix.remove_prefix(1);
    if (!suffix.empty() && suffix[0] == 'i' && suffix.size() == 2)
        suffix.remove_prefix(1);
    if (suffix.empty() || (suffix.size() == 1 && lower(suffix[0]) == 'b'))
        return static_cast<unsigned>(index) + 1;
    return {};
}

// The digits behind the point, as that part of 1024 to the power. More than nine digits say nothing more.
std::uint64_t fraction_bytes(std::string_view digits, unsigned shift)
{
    std::uint64_t value = 0, scale = 1;
    for (const char digit : digits.substr(0, 9)) {
        value = value * 10 + static_cast<std::uint64_t>(digit - '0');
        scale *= 10;
    }
    using Wide = unsigned __int128;
    return static_cast<std::uint64_t>((Wide{value} << shift) / scale);
}

}  // namespace

std::optional<std::uint64_t> parse_size(std::string_view text)
{
    std::uint64_t whole = 0;
    const char* const end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, whole);
    if (error != std::errc{})
        return {};
    std::string_view rest(stop, static_cast<std::size_t>(end - stop)), digits;
    if (rest.starts_with('.')) {
        const std::size_t count = rest.find_first_not_of("0123456789", 1);
        digits = rest.substr(1, count == rest.npos ? count : count - 1);
        rest.remove_prefix(1 + digits.size());
        if (digits.empty() || rest.empty())
            return {};
    }
    const auto power = power_of(rest);
    if (!power || whole > UINT64_MAX >> 10 * *power)
        return {};
    std::uint64_t bytes = whole << 10 * *power;
    if (!digits.empty()) {
        const std::uint64_t more = fraction_bytes(digits, 10 * *power);
        if (more > UINT64_MAX - bytes)
            return {};
        bytes = (bytes + more) / formats::sector_bytes * formats::sector_bytes;
    }
    return bytes != 0 ? std::optional(bytes) : std::nullopt;
}

}  // namespace image_tool
