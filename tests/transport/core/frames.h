// SPDX-License-Identifier: MIT
// Two hosts of one network, and frames between them for the tests of the transport driver's protocols.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "transport/core/frame.h"

namespace transport {

using Bytes = std::vector<std::uint8_t>;

inline constexpr Place workstation{
    {{2, 0, 0, 0, 0, 9}}, {{10, 0, 0, 9}}, {{255, 255, 255, 0}}, {{10, 0, 0, 1}}, 6001};
inline constexpr Place server{
    {{2, 0, 0, 0, 0, 7}}, {{10, 0, 0, 7}}, {{255, 255, 255, 0}}, {{10, 0, 0, 1}}, 8520};

// The sum as the standard words it: big-endian words, the carry brought round after each.
inline std::uint16_t plain_sum(std::span<const std::uint8_t> bytes)
{
    unsigned sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        sum += i % 2 == 0 ? unsigned{bytes[i]} << 8 : bytes[i];
        if (sum > 0xFFFF)
            sum -= 0xFFFF;
    }
    return static_cast<std::uint16_t>(sum);
}

inline Bytes datagram(const Place& from, const Place& to, const Bytes& payload,
                      Udp_Checksum checksum = Udp_Checksum::Whole)
{
    formats::DatagramHeaders headers;
    const auto first = static_cast<unsigned>(payload.size() / 3 | 1);  // an odd piece in front
    const unsigned head = payload.size() < first ? 0 : first;
    Write_Datagram_Headers(headers, from, to.Card, to.Own, to.Port, 77, payload.data(), head,
                           payload.data() + head, static_cast<unsigned>(payload.size()) - head, checksum);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&headers);
    Bytes frame(bytes, bytes + sizeof headers);
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

inline Bytes counted(std::size_t size)
{
    Bytes payload(size);
    for (std::size_t i = 0; i < size; ++i)
        payload[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return payload;
}

// After a change of the IPv4 header: makes its checksum right again.
inline void mend_ip_checksum(Bytes& frame)
{
    frame[24] = frame[25] = 0;
    const unsigned bytes = (frame[14] & 0xFu) * 4;
    const auto sum = static_cast<std::uint16_t>(~plain_sum(std::span(frame).subspan(14, bytes)));
    frame[24] = static_cast<std::uint8_t>(sum >> 8);
    frame[25] = static_cast<std::uint8_t>(sum);
}

// In a buffer of just that size, so that a look beyond it is seen.
inline Frame judge(const Bytes& frame, std::size_t lookahead_bytes = SIZE_MAX,
                   const Place& place = workstation)
{
    const Bytes lookahead(
        frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(std::min(lookahead_bytes, frame.size())));
    return Judge_Frame(lookahead.data(), static_cast<unsigned>(lookahead.size()),
                       static_cast<unsigned>(frame.size()), place);
}

}  // namespace transport
