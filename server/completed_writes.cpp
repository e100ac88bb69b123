// SPDX-License-Identifier: MIT
#include "server/completed_writes.h"

namespace server {

CompletedWrite* CompletedWrites::find(const WriteKey& key, std::uint64_t now_ms)
{
    if (!ring_)
        return nullptr;
    for (std::uint32_t at = chain_of(key); at != none; at = ring_[at].next) {
        CompletedWrite& write = ring_[at];
        if (write.key == key)
            return now_ms - write.heard_ms <= history_ms ? &write : nullptr;
    }
    return nullptr;
}

void CompletedWrites::add(const WriteKey& key, const std::uint32_t (&content)[fragments_max],
                          std::uint64_t now_ms)
{
    if (!ring_) {
        ring_ = std::make_unique_for_overwrite<CompletedWrite[]>(capacity_);
        chains_.assign(capacity_, none);
    }
    CompletedWrite& write = ring_[next_];
    if (used_ == capacity_)
        forget(write);
    else
        ++used_;
    std::uint32_t& chain = chain_of(key);
    write.key = key;
    write.heard_ms = now_ms;
    write.next = chain;
    write.remembered = true;
    write.repeated = 0;
    std::memcpy(write.content, content, sizeof write.content);
    chain = next_;
    next_ = (next_ + 1) & (capacity_ - 1);
}

void CompletedWrites::forget(CompletedWrite& write)
{
    if (!write.remembered)
        return;
    const auto index = static_cast<std::uint32_t>(&write - ring_.get());
    std::uint32_t* link = &chain_of(write.key);
    while (*link != index)
        link = &ring_[*link].next;
    *link = write.next;
    write.remembered = false;
}

}  // namespace server
