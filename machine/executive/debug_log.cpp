// SPDX-License-Identifier: MIT
#include "machine/executive/debug_log.h"

#include <algorithm>

namespace machine {

void DebugLog::append(Ticks time, const void* thread, std::string text)
{
    Entry entry{time, thread, std::move(text)};
    std::function<void(const Entry&)> sink;
    {
        std::lock_guard guard(lock_);
        sink = sink_;
        if (keep_)
            entries_.push_back(entry);
    }
    if (sink)
        sink(entry);
}

std::vector<DebugLog::Entry> DebugLog::entries() const
{
    std::lock_guard guard(lock_);
    return entries_;
}

std::size_t DebugLog::count(const std::string& piece) const
{
    std::lock_guard guard(lock_);
    return static_cast<std::size_t>(std::ranges::count_if(
        entries_, [&](const Entry& entry) { return entry.text.find(piece) != std::string::npos; }));
}

std::string DebugLog::text() const
{
    std::lock_guard guard(lock_);
    std::string all;
    for (const Entry& entry : entries_)
        all += entry.text;
    return all;
}

void DebugLog::clear()
{
    std::lock_guard guard(lock_);
    entries_.clear();
}

void DebugLog::set_sink(std::function<void(const Entry&)> sink, bool keep)
{
    std::lock_guard guard(lock_);
    sink_ = std::move(sink);
    keep_ = keep;
}

}  // namespace machine
