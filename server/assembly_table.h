// SPDX-License-Identifier: MIT
// Writes of one disk of which some fragments have arrived and some have not. Used by the protocol on
// its own thread. Bounded: when all places are taken, the write heard of longest ago loses its
// fragments, and its workstation sends them again.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "server/write_key.h"

namespace server {

struct Assembly {
    WriteKey key;
    formats::ServerRecord from;
    formats::WireHeader header;  // of the first fragment; answers copy it
    std::uint64_t heard_ms = 0;
    std::uint64_t order = 0;    // grows whenever the write is heard of
    unsigned count = 0;         // fragments of the packet
    std::uint16_t arrived = 0;  // one bit for each fragment
    std::uint32_t content[fragments_max] = {};
    std::uint8_t data[formats::packet_bytes_max];

    bool complete() const { return arrived == all_fragments(count); }
};

class AssemblyTable {
public:
    // A workstation has at most eight packets in flight.
    static constexpr std::size_t places = 128;

    // Null when nothing of this write has arrived lately. Counts as hearing of it.
    Assembly* find(const WriteKey& key, std::uint64_t now_ms);

    // A new, empty assembly; find() must have returned null.
    Assembly& start(const WriteKey& key, const formats::ServerRecord& from, const formats::WireHeader& header,
                    std::uint64_t now_ms);

    void release(const Assembly& assembly);

    // All writes under way; valid until the next start() or release().
    std::span<const std::unique_ptr<Assembly>> under_way() const { return {places_.data(), used_}; }

private:
    std::vector<std::unique_ptr<Assembly>> places_;  // the first used_ are under way; grows to `places`
    std::size_t used_ = 0;
    std::uint64_t order_ = 0;
    std::size_t last_found_ = 0;  // fragments of one write mostly come in a row
};

}  // namespace server
