// SPDX-License-Identifier: MIT
// Where the PC stands in its network, and which neighbour a packet goes to. Plain values, any IRQL.
#pragma once

#include <cstdint>

namespace transport {

struct Ip_Address {
    std::uint8_t Bytes[4];

    bool operator==(const Ip_Address&) const = default;
    constexpr bool Is_Zero() const { return (Bytes[0] | Bytes[1] | Bytes[2] | Bytes[3]) == 0; }
    // Not one host's: multicast, reserved, broadcast to everybody.
    constexpr bool Is_Of_Many() const { return Bytes[0] >= 224; }
};

struct Hardware_Address {
    std::uint8_t Bytes[6];

    bool operator==(const Hardware_Address&) const = default;
    // One card's: neither a group's nor the zeros of a record that names none.
    constexpr bool Is_One_Card() const
    {
        return (Bytes[0] & 1) == 0 && (Bytes[0] | Bytes[1] | Bytes[2] | Bytes[3] | Bytes[4] | Bytes[5]) != 0;
    }
};

constexpr Hardware_Address Every_Card{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};

struct Place {
    Hardware_Address Card;
    Ip_Address Own;
    Ip_Address Mask;
    Ip_Address Gateway;  // zero: none
    std::uint16_t Port;
};

// The host on this network that takes what goes to the address: the address itself, or the gateway. False
// when nobody does, or when many would.
bool Next_Hop(const Place& Place, const Ip_Address& To, Ip_Address& Hop);

}  // namespace transport
