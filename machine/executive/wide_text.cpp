// SPDX-License-Identifier: MIT
#include "machine/executive/wide_text.h"

namespace machine {
namespace {

constexpr bool high_surrogate(char16_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}
constexpr bool low_surrogate(char16_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

}  // namespace

std::u16string text_of(const UNICODE_STRING& string)
{
    const auto* units = reinterpret_cast<const char16_t*>(string.Buffer);
    return {units, units + string.Length / sizeof(WCHAR)};
}

std::u16string text_of(PCWSTR string)
{
    return reinterpret_cast<const char16_t*>(string);
}

std::u16string folded(std::u16string name)
{
    for (char16_t& unit : name)
        if (unit >= u'a' && unit <= u'z')
            unit = static_cast<char16_t>(unit - u'a' + u'A');
    return name;
}

void append_utf8(std::string& text, char32_t character)
{
    const auto tail = [&](int shift) { text += static_cast<char>(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += static_cast<char>(0xC0 | character >> 6);
        tail(0);
    } else if (character < 0x10000) {
        text += static_cast<char>(0xE0 | character >> 12);
        tail(6);
        tail(0);
    } else {
        text += static_cast<char>(0xF0 | character >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

std::string narrow(const std::u16string& text)
{
    std::string result;
    for (std::size_t index = 0; index < text.size(); ++index) {
        char32_t character = text[index];
        if (high_surrogate(text[index]) && index + 1 < text.size() && low_surrogate(text[index + 1]))
            character = 0x10000 + ((character - 0xD800) << 10) + (text[++index] - 0xDC00u);
        append_utf8(result, character);
    }
    return result;
}

std::u16string widened(const std::string& ascii)
{
    return {ascii.begin(), ascii.end()};
}

}  // namespace machine
