// SPDX-License-Identifier: MIT
// Integer fields of byte formats: fixed byte order, no alignment, no padding.
//
// A format's struct is made of these types and of byte arrays only, so it can be laid over received
// bytes at any address. get() and set() are the only way in and out.
#pragma once

#include <cstddef>
#include <cstdint>

namespace formats {

template <typename Value, unsigned byte_count = sizeof(Value)>
class LittleEndian {
public:
    constexpr Value get() const
    {
        Value value = 0;
        for (unsigned i = 0; i < byte_count; ++i)
            value = static_cast<Value>(value | static_cast<Value>(static_cast<Value>(bytes_[i]) << (8 * i)));
        return value;
    }
    constexpr void set(Value value)
    {
        for (unsigned i = 0; i < byte_count; ++i)
            bytes_[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }

private:
    std::uint8_t bytes_[byte_count];
};

template <typename Value, unsigned byte_count = sizeof(Value)>
class BigEndian {
public:
    constexpr Value get() const
    {
        Value value = 0;
        for (unsigned i = 0; i < byte_count; ++i)
            value = static_cast<Value>(
                value | static_cast<Value>(static_cast<Value>(bytes_[i]) << (8 * (byte_count - 1 - i))));
        return value;
    }
    constexpr void set(Value value)
    {
        for (unsigned i = 0; i < byte_count; ++i)
            bytes_[i] = static_cast<std::uint8_t>(value >> (8 * (byte_count - 1 - i)));
    }

private:
    std::uint8_t bytes_[byte_count];
};

using Le16 = LittleEndian<std::uint16_t>;
using Le32 = LittleEndian<std::uint32_t>;
using Le64 = LittleEndian<std::uint64_t>;
using Be16 = BigEndian<std::uint16_t>;
using Be32 = BigEndian<std::uint32_t>;
using Be48 = BigEndian<std::uint64_t, 6>;
using Be64 = BigEndian<std::uint64_t>;

static_assert(sizeof(Le16) == 2 && sizeof(Le32) == 4 && sizeof(Le64) == 8);
static_assert(sizeof(Be16) == 2 && sizeof(Be32) == 4 && sizeof(Be48) == 6 && sizeof(Be64) == 8);

}  // namespace formats
