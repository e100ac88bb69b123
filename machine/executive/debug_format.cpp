// SPDX-License-Identifier: MIT
#include "machine/executive/debug_format.h"

#include <nt.h>

#include <algorithm>
#include <cstdint>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/threads.h"
#include "machine/executive/wide_text.h"

namespace machine {
namespace {

constexpr std::size_t text_bytes_max = 512;

struct Conversion {
    bool left = false, zero = false, plus = false, space = false, alternate = false;
    int width = 0;
    int precision = -1;
    enum class Size { plain, half, wide, eight } size = Size::plain;
    char kind = 0;
};

class Formatter {
public:
    Formatter(const char* format, std::va_list arguments) : next_(format) { va_copy(arguments_, arguments); }
    ~Formatter() { va_end(arguments_); }
    Formatter(const Formatter&) = delete;
    Formatter& operator=(const Formatter&) = delete;

    std::string run()
    {
        while (*next_ && text_.size() < text_bytes_max) {
            if (*next_ != '%') {
                text_ += *next_++;
                continue;
            }
            const char* start = next_++;
            const Conversion conversion = parse();
            if (!convert(conversion))
                text_.append(start, next_);
        }
        text_.resize(std::min(text_.size(), text_bytes_max));
        return std::move(text_);
    }

private:
    Conversion parse()
    {
        Conversion result;
        for (;; ++next_) {
            if (*next_ == '-')
                result.left = true;
            else if (*next_ == '0')
                result.zero = true;
            else if (*next_ == '+')
                result.plus = true;
            else if (*next_ == ' ')
                result.space = true;
            else if (*next_ == '#')
                result.alternate = true;
            else
                break;
        }
        result.width = number();
        if (result.width < 0) {
            result.left = true;
            result.width = -result.width;
        }
        if (*next_ == '.') {
            ++next_;
            result.precision = std::max(-1, number());
        }
        parse_size(result);
        result.kind = *next_;
        if (*next_)
            ++next_;
        return result;
    }

    int number()
    {
        constexpr int most = text_bytes_max;
        if (*next_ == '*') {
            ++next_;
            return std::clamp(va_arg(arguments_, int), -most, most);
        }
        int value = 0;
        for (; *next_ >= '0' && *next_ <= '9'; ++next_)
            value = std::min(most, value * 10 + (*next_ - '0'));
        return value;
    }

    bool skip(std::string_view piece)
    {
        if (!std::string_view(next_).starts_with(piece))
            return false;
        next_ += piece.size();
        return true;
    }

    void parse_size(Conversion& conversion)
    {
        using Size = Conversion::Size;
        if (skip("I64") || skip("ll"))
            conversion.size = Size::eight;
        else if (skip("I32"))
            conversion.size = Size::plain;
        else if (skip("l") || skip("w"))
            conversion.size = Size::wide;
        else if (skip("h"))
            conversion.size = Size::half;
    }

    bool convert(const Conversion& conversion)
    {
        switch (conversion.kind) {
        case 'd':
        case 'i':
            convert_signed(conversion);
            return true;
        case 'u':
            convert_unsigned(conversion, 10, "0123456789", "");
            return true;
        case 'o':
            convert_unsigned(conversion, 8, "01234567", "0");
            return true;
        case 'x':
            convert_unsigned(conversion, 16, "0123456789abcdef", "0x");
            return true;
        case 'X':
            convert_unsigned(conversion, 16, "0123456789ABCDEF", "0X");
            return true;
        case 'p':
            convert_pointer(conversion);
            return true;
        case 'c':
        case 'C':
            convert_character(conversion);
            return true;
        case 's':
        case 'S':
            convert_string(conversion);
            return true;
        case 'Z':
            convert_counted_string(conversion);
            return true;
        case '%':
            text_ += '%';
            return true;
        default:
            return false;
        }
    }

    void convert_signed(const Conversion& conversion)
    {
        std::int64_t value = conversion.size == Conversion::Size::eight ? va_arg(arguments_, long long)
                                                                        : va_arg(arguments_, int);
        if (conversion.size == Conversion::Size::half)
            value = static_cast<short>(value);
        const char* sign = value < 0 ? "-" : conversion.plus ? "+" : conversion.space ? " " : "";
        const auto magnitude =
            value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
        put_number(conversion, sign, digits_of(magnitude, 10, "0123456789"));
    }

    void convert_unsigned(const Conversion& conversion, unsigned base, const char* digits, const char* prefix)
    {
        std::uint64_t value = conversion.size == Conversion::Size::eight
                                  ? va_arg(arguments_, unsigned long long)
                                  : va_arg(arguments_, unsigned);
        if (conversion.size == Conversion::Size::half)
            value = static_cast<unsigned short>(value);
        put_number(conversion, conversion.alternate && value ? prefix : "", digits_of(value, base, digits));
    }

    void convert_pointer(Conversion conversion)
    {
        conversion.precision = 2 * sizeof(void*);
        put_number(
            conversion, "",
            digits_of(reinterpret_cast<std::uintptr_t>(va_arg(arguments_, void*)), 16, "0123456789ABCDEF"));
    }

    void convert_character(const Conversion& conversion)
    {
        const int value = va_arg(arguments_, int);
        std::string character;
        if (is_wide(conversion)) {
            check_translates();
            append_utf8(character, static_cast<char16_t>(value));
        } else {
            character = static_cast<char>(value);
        }
        pad(conversion, character);
    }

    void convert_string(const Conversion& conversion)
    {
        const void* string = va_arg(arguments_, const void*);
        const std::size_t most =
            conversion.precision < 0 ? text_bytes_max : static_cast<std::size_t>(conversion.precision);
        if (!string)
            pad(conversion, std::string("(null)").substr(0, most));
        else if (is_wide(conversion))
            pad(conversion, translated(bounded(static_cast<const char16_t*>(string), most)));
        else
            pad(conversion, bounded(static_cast<const char*>(string), most));
    }

    void convert_counted_string(const Conversion& conversion)
    {
        const void* string = va_arg(arguments_, const void*);
        const auto* wide = static_cast<const UNICODE_STRING*>(string);
        const auto* bytes = static_cast<const ANSI_STRING*>(string);
        if (!string || !bytes->Buffer)
            pad(conversion, "(null)");
        else if (conversion.size == Conversion::Size::wide)
            pad(conversion, translated(text_of(*wide)));
        else
            pad(conversion, {bytes->Buffer, bytes->Length});
    }

    // The tables that wide characters are translated with lie in paged memory.
    static void check_translates() { enter_at_most(PASSIVE_LEVEL, "DbgPrint with wide characters"); }

    static std::string translated(const std::u16string& text)
    {
        check_translates();
        return narrow(text);
    }

    // %S and %C turn the size round; h means bytes in both.
    static bool is_wide(const Conversion& conversion)
    {
        if (conversion.size == Conversion::Size::half)
            return false;
        const bool capital = conversion.kind == 'S' || conversion.kind == 'C';
        return capital || conversion.size == Conversion::Size::wide;
    }

    // Reads no unit behind the terminator, and none behind the given count.
    template <class Unit>
    static std::basic_string<Unit> bounded(const Unit* string, std::size_t most)
    {
        std::size_t length = 0;
        while (length < most && string[length])
            ++length;
        return {string, length};
    }

    static std::string digits_of(std::uint64_t value, unsigned base, const char* digits)
    {
        std::string reversed;
        do
            reversed += digits[value % base];
        while (value /= base);
        return {reversed.rbegin(), reversed.rend()};
    }

    void put_number(const Conversion& conversion, std::string prefix, const std::string& digits)
    {
        std::size_t zeros = 0;
        const auto width = static_cast<std::size_t>(conversion.width);
        if (conversion.precision >= 0)
            zeros = static_cast<std::size_t>(conversion.precision);
        else if (conversion.zero && !conversion.left && width > prefix.size())
            zeros = width - prefix.size();
        if (zeros > digits.size())
            prefix.append(zeros - digits.size(), '0');
        pad(conversion, prefix + digits);
    }

    void pad(const Conversion& conversion, const std::string& piece)
    {
        const auto width = static_cast<std::size_t>(conversion.width);
        const std::size_t blanks = width > piece.size() ? width - piece.size() : 0;
        if (!conversion.left)
            text_.append(blanks, ' ');
        text_ += piece;
        if (conversion.left)
            text_.append(blanks, ' ');
    }

    const char* next_;
    std::va_list arguments_;
    std::string text_;
};

}  // namespace

std::string format_debug_text(const char* format, std::va_list arguments)
{
    return Formatter(format, arguments).run();
}

}  // namespace machine

using namespace machine;

extern "C" ULONG __cdecl DbgPrint(PCSTR format, ...)
{
    self();
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = format_debug_text(format, arguments);
    va_end(arguments);
    wake_waiters();  // whoever reads the messages may not be there
    executive().log.append(scheduler().now(), &self(), std::move(text));
    return STATUS_SUCCESS;
}
