// SPDX-License-Identifier: MIT
// Independent streams of random numbers of one seed: a draw for one purpose does not shift the others.
#pragma once

#include <cstdint>
#include <string_view>

#include "machine/scheduler/random.h"

namespace campaign {

class Stream : public machine::Random {
public:
    Stream(std::uint64_t seed, std::string_view purpose, unsigned number = 0)
        : machine::Random(mixed(seed, purpose, number))
    {
    }

    // Both ends included.
    std::uint32_t between(std::uint32_t low, std::uint32_t high) { return low + below(high - low + 1); }
    double fraction() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    template <typename Value, std::size_t count>
    Value one_of(const Value (&values)[count])
    {
        return values[below(static_cast<std::uint32_t>(count))];
    }

private:
    static std::uint64_t mixed(std::uint64_t seed, std::string_view purpose, unsigned number)
    {
        std::uint64_t hash = 0xCBF29CE484222325u ^ (number * 0x9E3779B97F4A7C15u);
        for (char letter : purpose)
            hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001B3u;
        return machine::Random(seed ^ hash).next() ^ hash;
    }
};

}  // namespace campaign
