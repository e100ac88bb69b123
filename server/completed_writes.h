// SPDX-License-Identifier: MIT
// Memory of the last writes completed on one disk, so that a packet that comes twice is answered
// again and not written again: a late copy of an old write must never undo a newer one. Used by the
// protocol on its own thread; fixed size, nothing is allocated after the first write.
//
// A write is known by its key. Two things could make a new write look like an old one:
//  - The sequence number in the key has 16 bits and wraps. The memory holds fewer writes than that.
//  - A workstation that restarts begins with sequence number 1 again and may have the same port. So
//    an entry is forgotten history_ms after it was last heard of: longer than any network delays a
//    packet, shorter than any restart. And a packet counts as a repeat only where its content is
//    that of the completed write; one that differs is a new write.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "server/write_key.h"

namespace server {

constexpr std::uint64_t history_ms = 5000;

struct CompletedWrite {
    WriteKey key;
    std::uint64_t heard_ms;  // completion or last repeat
    std::uint32_t next;      // in the hash chain
    bool remembered;
    std::uint16_t repeated;  // fragments that came again since it was last answered
    std::uint32_t content[fragments_max];
};

class CompletedWrites {
public:
    static constexpr std::uint32_t default_capacity = 32768;

    // `capacity` is a power of two, at most half the range of the sequence numbers.
    explicit CompletedWrites(std::uint32_t capacity = default_capacity) : capacity_(capacity) {}

    // Null when no such write is remembered. Valid until the next add().
    CompletedWrite* find(const WriteKey& key, std::uint64_t now_ms);

    // `content` has the hash of each fragment. The oldest write is forgotten when all room is used.
    void add(const WriteKey& key, const std::uint32_t (&content)[fragments_max], std::uint64_t now_ms);

    void forget(CompletedWrite& write);

private:
    static constexpr std::uint32_t none = UINT32_MAX;

    std::uint32_t& chain_of(const WriteKey& key)
    {
        return chains_[static_cast<std::size_t>(hash_of(key) & (capacity_ - 1))];
    }

    std::uint32_t capacity_;
    std::uint32_t next_ = 0;                  // entry that the next write takes
    std::uint32_t used_ = 0;                  // entries written so far
    std::unique_ptr<CompletedWrite[]> ring_;  // in order of completion; memory is touched as it is used
    std::vector<std::uint32_t> chains_;
};

}  // namespace server
