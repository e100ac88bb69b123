// SPDX-License-Identifier: MIT
// What every target shares: the fuzzer's bytes taken piece by piece, and the end of a run that broke a rule.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

// Numbers are zeros, and pieces short, once the bytes are used up.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : left_(data, size) {}

    bool empty() const { return left_.empty(); }
    std::span<const std::uint8_t> rest() const { return left_; }
    std::span<const std::uint8_t> piece(std::size_t bytes)
    {
        const auto taken = left_.first(std::min(bytes, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    std::uint8_t u8() { return number<std::uint8_t>(); }
    std::uint16_t u16() { return number<std::uint16_t>(); }
    std::uint32_t u32() { return number<std::uint32_t>(); }
    // Fills the object as far as there are bytes; the rest stays as it is.
    template <typename Object>
    void fill(Object& object)
    {
        const auto bytes = piece(sizeof object);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(&object));
    }

private:
    template <typename Number>
    Number number()
    {
        Number value = 0;
        fill(value);
        return value;
    }

    std::span<const std::uint8_t> left_;
};

// A rule that held for every input must hold for this one.
inline void require(bool holds, const char* rule)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken: %s\n", rule);
    std::abort();
}

}  // namespace fuzz
