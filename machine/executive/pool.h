// SPDX-License-Identifier: MIT
// Tagged pool with guards. Every block has guard bytes on both sides, is filled with a pattern when it
// is allocated and again when it is freed, and waits in a quarantine before its memory is used again.
// All functions may be called by any thread; misuse is a violation.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

namespace machine {

struct PoolUse {
    std::string tag;
    std::size_t bytes;
    const void* block;
};

class Pool {
public:
    // bytes_max: what all live blocks may have together.
    Pool(bool strict, std::uint64_t bytes_max) : strict_(strict), bytes_max_(bytes_max) {}
    ~Pool();
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    // Aligned to 8 bytes and, when strict, never to 16. Null when the limit is reached or the host has no
    // memory left.
    void* allocate(std::size_t bytes, std::uint32_t tag);
    // tag 0: any.
    void free(void* block, std::uint32_t tag);

    // Whether this is a live block.
    bool owns(const void* block) const;
    // Checks the guards of all live blocks and the pattern of all freed ones.
    void check() const;

    // Live bytes, by four-character tag; empty: all.
    std::uint64_t bytes(const std::string& tag) const;
    std::vector<PoolUse> live() const;

    // A violation while allocations are forbidden.
    void check_allowed(std::size_t bytes, std::uint32_t tag) const;
    void forbid_allocation(bool forbid) { forbidden_ = forbid; }

private:
    struct Block;
    bool reserve(std::size_t bytes);
    void quarantine(Block* block);

    const bool strict_;
    const std::uint64_t bytes_max_;
    std::atomic<bool> forbidden_ = false;
    mutable std::mutex lock_;
    std::unordered_set<Block*> live_;
    std::map<std::uint32_t, std::uint64_t> bytes_by_tag_;
    std::uint64_t live_bytes_ = 0;
    std::deque<Block*> freed_;
    std::size_t freed_bytes_ = 0;
};

// A tag is four characters in memory order: a driver writes the tag "QRNM" as 'MNRQ'.
std::string tag_text(std::uint32_t tag);

consteval std::uint32_t pool_tag(const char (&text)[5])
{
    std::uint32_t tag = 0;
    for (int index = 3; index >= 0; --index)
        tag = tag << 8 | static_cast<std::uint8_t>(text[index]);
    return tag;
}

}  // namespace machine
