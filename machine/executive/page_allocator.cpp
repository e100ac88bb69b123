// SPDX-License-Identifier: MIT
#include "machine/executive/page_allocator.h"

#include <algorithm>

namespace machine {
namespace {

constexpr std::uint64_t firmware_pages = (std::uint64_t{1} << 20) / page_bytes;

}  // namespace

PageAllocator::PageAllocator(const std::vector<MemoryRange>& ranges, std::uint32_t piece_pages_max,
                             std::uint64_t seed)
    : piece_pages_max_(piece_pages_max), random_(seed)
{
    std::vector<MemoryRange> ordered = ranges;
    std::ranges::sort(ordered, {}, &MemoryRange::base);
    std::uint64_t next = firmware_pages;
    for (const MemoryRange& range : ordered) {
        const std::uint64_t first = std::max(next, (range.base + page_bytes - 1) / page_bytes);
        const std::uint64_t end = (range.base + range.length) / page_bytes;
        if (first >= end)
            continue;
        insert({first, end - first});
        next = end;
    }
}

std::vector<PageRun> PageAllocator::take(std::uint64_t low, std::uint64_t high, std::uint64_t count)
{
    std::vector<PageRun> runs;
    while (count > 0) {
        bool from_top = false;
        std::uint64_t piece_pages = count;
        if (piece_pages_max_) {
            from_top = random_.next() >> 63;
            piece_pages = std::min<std::uint64_t>(count, 1 + random_.below(piece_pages_max_));
        }
        const std::optional<PageRun> piece =
            from_top ? highest(low, high, piece_pages) : lowest(low, high, piece_pages);
        if (!piece)
            break;
        remove(*piece);
        in_use_ += piece->count;
        count -= piece->count;
        if (!runs.empty() && runs.back().end() == piece->first)
            runs.back().count += piece->count;
        else
            runs.push_back(*piece);
    }
    return runs;
}

void PageAllocator::give(const PageRun& run)
{
    insert(run);
    in_use_ -= run.count;
}

std::optional<PageRun> PageAllocator::lowest(std::uint64_t low, std::uint64_t high, std::uint64_t count) const
{
    auto found = free_.upper_bound(low);
    if (found != free_.begin() && std::prev(found)->first + std::prev(found)->second > low)
        --found;
    if (found == free_.end())
        return {};
    const std::uint64_t first = std::max(found->first, low);
    const std::uint64_t end = std::min(found->first + found->second, high + 1);
    if (first >= end)
        return {};
    return PageRun{first, std::min(count, end - first)};
}

std::optional<PageRun> PageAllocator::highest(std::uint64_t low, std::uint64_t high,
                                              std::uint64_t count) const
{
    auto found = free_.upper_bound(high);
    if (found == free_.begin())
        return {};
    --found;
    const std::uint64_t first = std::max(found->first, low);
    const std::uint64_t end = std::min(found->first + found->second, high + 1);
    if (first >= end)
        return {};
    count = std::min(count, end - first);
    return PageRun{end - count, count};
}

void PageAllocator::insert(PageRun run)
{
    const auto after = free_.lower_bound(run.first);
    if (after != free_.end() && after->first == run.end()) {
        run.count += after->second;
        free_.erase(after);
    }
    const auto behind = free_.lower_bound(run.first);
    if (behind != free_.begin() && std::prev(behind)->first + std::prev(behind)->second == run.first)
        std::prev(behind)->second += run.count;
    else
        free_.emplace_hint(behind, run.first, run.count);
}

void PageAllocator::remove(const PageRun& run)
{
    const auto around = std::prev(free_.upper_bound(run.first));
    const std::uint64_t end = around->first + around->second;
    if (around->first == run.first)
        free_.erase(around);
    else
        around->second = run.first - around->first;
    if (run.end() < end)
        free_.emplace(run.end(), end - run.end());
}

}  // namespace machine
