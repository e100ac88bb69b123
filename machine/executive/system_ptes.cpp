// SPDX-License-Identifier: MIT
#include "machine/executive/system_ptes.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "machine/scheduler/random.h"

namespace machine {
namespace {

// Runs that add up to the total, the largest at a drawn place among them.
std::vector<std::uint32_t> draw_runs(std::uint32_t total, std::uint32_t largest, Random& random)
{
    std::vector<std::uint32_t> runs{largest};
    for (std::uint32_t left = total - largest; left != 0; left -= runs.back()) {
        const std::uint32_t most = std::min(left, largest);
        // Runs of all orders of magnitude, as mappings are.
        const std::uint32_t bound = std::max<std::uint32_t>(most >> random.below(8), 1);
        runs.push_back(1 + random.below(bound));
    }
    std::swap(runs.front(), runs[random.below(static_cast<std::uint32_t>(runs.size()))]);
    return runs;
}

}  // namespace

SystemPtes::SystemPtes(std::uint32_t total, std::uint32_t largest_run, std::uint64_t seed)
    : limited_(total != 0)
{
    if (!limited_)
        return;
    Random random(seed ^ 0x5054455300000000u);
    std::uint32_t place = 0;
    for (const std::uint32_t run :
         draw_runs(total, std::min(largest_run ? largest_run : total, total), random)) {
        free_.emplace(place, run);
        place += run + 1;  // an entry in use parts it from the next
    }
    free_count_ = total;
}

std::optional<std::uint32_t> SystemPtes::take(std::uint32_t count)
{
    if (!limited_)
        return 0;
    const auto run = std::ranges::find_if(free_, [=](const auto& entry) { return entry.second >= count; });
    if (run == free_.end())
        return std::nullopt;
    const auto [first, length] = *run;
    free_.erase(run);
    if (length > count)
        free_.emplace(first + count, length - count);
    free_count_ -= count;
    return first;
}

void SystemPtes::give(std::uint32_t first, std::uint32_t count)
{
    if (!limited_)
        return;
    free_count_ += count;
    auto next = free_.lower_bound(first);
    if (next != free_.end() && first + count == next->first) {
        count += next->second;
        next = free_.erase(next);
    }
    if (next != free_.begin()) {
        const auto previous = std::prev(next);
        if (previous->first + previous->second == first) {
            previous->second += count;
            return;
        }
    }
    free_.emplace(first, count);
}

std::uint32_t SystemPtes::largest_run() const
{
    std::uint32_t largest = 0;
    for (const auto& [first, count] : free_)
        largest = std::max(largest, count);
    return largest;
}

}  // namespace machine
