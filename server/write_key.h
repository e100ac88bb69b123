// SPDX-License-Identifier: MIT
// What identifies one write packet at the server: who sent it, the bytes by which its answers match,
// and where it goes. Kept in three words, so that comparing and hashing cost nothing.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <span>

#include "formats/wire.h"

namespace server {

constexpr unsigned fragments_max = formats::fragment_count(formats::packet_bytes_max);

// One bit for each of the first `count` fragments.
constexpr std::uint16_t all_fragments(unsigned count)
{
    return static_cast<std::uint16_t>((1u << count) - 1);
}

struct WriteKey {
    std::array<std::uint64_t, 3> words{};

    WriteKey() = default;
    WriteKey(const formats::ServerRecord& from, const formats::WireHeader& header)
    {
        auto* bytes = reinterpret_cast<std::uint8_t*>(words.data());
        std::memcpy(bytes, from.Ip, 4);
        std::memcpy(bytes + 4, &from.Port, 2);
        std::memcpy(bytes + 6, &header.Tag, formats::match_bytes);
        std::memcpy(bytes + 16, &header.Byte_Offset, 6);
        std::memcpy(bytes + 22, &header.Length, 2);
    }
    bool operator==(const WriteKey&) const = default;
};

// Spreads similar values over all bits. For telling contents apart by accident, not by design.
constexpr std::uint64_t mix(std::uint64_t value)
{
    value = (value ^ (value >> 32)) * 0x9E3779B97F4A7C15u;
    value = (value ^ (value >> 29)) * 0xBF58476D1CE4E5B9u;
    return value ^ (value >> 32);
}

inline std::uint64_t hash_of(const WriteKey& key)
{
    return mix(key.words[0] + mix(key.words[1] + mix(key.words[2])));
}

// Content of a fragment in 32 bits: four independent lanes, so that it runs at memory speed.
inline std::uint32_t content_hash(std::span<const std::uint8_t> data)
{
    constexpr std::uint64_t multiplier = 0xD6E8FEB86659FD93u;
    std::uint64_t lanes[4] = {1, 2, 3, 4};
    std::size_t at = 0;
    for (; at + 32 <= data.size(); at += 32) {
        std::uint64_t words[4];
        std::memcpy(words, data.data() + at, 32);
        for (unsigned lane = 0; lane < 4; ++lane) {
            lanes[lane] = (lanes[lane] ^ words[lane]) * multiplier;
            lanes[lane] ^= lanes[lane] >> 32;
        }
    }
    std::uint64_t rest[4] = {};
    if (at < data.size())
        std::memcpy(rest, data.data() + at, data.size() - at);
    std::uint64_t hash = data.size();
    for (unsigned lane = 0; lane < 4; ++lane)
        hash = mix(hash + mix(lanes[lane] ^ rest[lane]));
    return static_cast<std::uint32_t>(hash);
}

}  // namespace server
