// SPDX-License-Identifier: MIT
// What transfer.cpp stands on: datagrams, the clock, and memory outside the program's segment. network.cpp
// has them on a PC, tests in virtual time.
#pragma once

#include <cstdint>

namespace boot {

constexpr unsigned datagram_bytes_max = 1472;

bool send(const std::uint8_t (&ip)[4], std::uint16_t port, const void* datagram, unsigned size_bytes);
// Bytes of a datagram for us, in receive_buffer; 0: none is there.
unsigned receive();
extern std::uint8_t receive_buffer[datagram_bytes_max];

// The BIOS clock: 18.2 ticks a second, back to 0 at midnight.
std::uint32_t bios_ticks();

// Since an earlier tick.
inline std::uint32_t ticks_since(std::uint32_t earlier)
{
    constexpr std::uint32_t ticks_a_day = 0x1800B0;
    const std::uint32_t now = bios_ticks();
    return now >= earlier ? now - earlier : now + ticks_a_day - earlier;
}

// At linear addresses below 1 MB + 64 KB.
void copy_out(std::uint32_t linear, const void* ours, unsigned byte_count);
void copy_in(void* ours, std::uint32_t linear, unsigned byte_count);
void zero_out(std::uint32_t linear, unsigned byte_count);

}  // namespace boot
