// SPDX-License-Identifier: MIT
// How long a disk took for its clients' requests: counts in steps of an eighth of an octave, for percentiles
// that are right within an eighth. Added to in any thread.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>

namespace station {

inline std::int64_t monotonic_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

class AnswerTimes {
public:
    static constexpr unsigned steps_per_octave = 8;
    static constexpr unsigned steps = 40 * steps_per_octave;  // up to 12 days
    using Counts = std::array<std::uint32_t, steps>;

    void add(std::int64_t us) { ++counts_[step_of(us)]; }

    Counts counts() const
    {
        Counts copy;
        for (unsigned i = 0; i < steps; ++i)
            copy[i] = counts_[i].load(std::memory_order_relaxed);
        return copy;
    }

    // The time within which so many of 100 answers came, of those that now has beyond before; 0 when there
    // are none.
    static double percentile_ms(const Counts& now, const Counts& before, unsigned percent)
    {
        std::uint64_t all = 0, seen = 0;
        for (unsigned i = 0; i < steps; ++i)
            all += now[i] - before[i];
        if (all == 0)
            return 0;
        const std::uint64_t wanted = (all * percent + 99) / 100;
        unsigned step = 0;
        for (; step < steps - 1; ++step)
            if ((seen += now[step] - before[step]) >= wanted)
                break;
        return static_cast<double>(end_us(step)) / 1000;
    }

private:
    // Exact below 8 us; then the highest bit says the octave and the next three the step in it.
    static unsigned step_of(std::int64_t us)
    {
        const auto value = static_cast<std::uint64_t>(us > 0 ? us : 0);
        if (value < steps_per_octave)
            return static_cast<unsigned>(value);
        const auto octave = static_cast<unsigned>(std::bit_width(value)) - 4;
        const unsigned step = (octave + 1) * steps_per_octave + static_cast<unsigned>(value >> octave & 7);
        return step < steps ? step : steps - 1;
    }
    static std::uint64_t end_us(unsigned step)
    {
        if (step < steps_per_octave)
            return step + 1;
        const unsigned octave = step / steps_per_octave - 1;
        return static_cast<std::uint64_t>(steps_per_octave + step % steps_per_octave + 1) << octave;
    }

    std::array<std::atomic<std::uint32_t>, steps> counts_{};
};

}  // namespace station
