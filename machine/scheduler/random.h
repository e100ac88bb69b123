// SPDX-License-Identifier: MIT
// The machine's random numbers: small, fast and the same on every host. One generator per purpose, so
// that a draw of one does not shift the others.
#pragma once

#include <cstdint>

namespace machine {

class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next()
    {
        state_ += 0x9E3779B97F4A7C15u;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
        return mixed ^ (mixed >> 31);
    }

    // 0 to bound - 1; bound is not 0.
    std::uint32_t below(std::uint32_t bound)
    {
        return static_cast<std::uint32_t>(((next() >> 32) * bound) >> 32);
    }

    // True with this probability, 0 to 1.
    bool chance(double probability) { return static_cast<double>(next() >> 11) * 0x1p-53 < probability; }

private:
    std::uint64_t state_;
};

}  // namespace machine
