// SPDX-License-Identifier: MIT
// What the card's ROM learned from the DHCP server. Needs no PC; packets are not trusted.
#pragma once

#include "formats/boot_request.h"

namespace boot {

// Of the PC and its server, as DHCP tells them; zero: not told.
struct NetworkPlace {
    std::uint8_t ip[4];
    std::uint8_t mask[4];
    std::uint8_t gateway[4];
    std::uint8_t hardware[6];
    std::uint8_t server[4];
    std::uint16_t server_port;
    bool root_path_wrong;  // there is a root path of ours, and it cannot be read
};

// Adds what a DHCP packet tells. A root path "qrn:ADDRESS[:PORT]" goes before the next server's address, and
// what an earlier packet told before what a later one tells.
void take_dhcp_packet(NetworkPlace& place, const std::uint8_t* packet, unsigned size_bytes);

// "qrn:ADDRESS[:PORT]". False: it is none, and nothing has changed.
bool parse_root_path(const std::uint8_t* text, unsigned size_bytes, std::uint8_t (&server)[4],
                     std::uint16_t& port);

constexpr bool is_zero(const std::uint8_t (&ip)[4])
{
    return (ip[0] | ip[1] | ip[2] | ip[3]) == 0;
}

// Whether packets to it go over the gateway.
constexpr bool is_elsewhere(const NetworkPlace& place, const std::uint8_t (&ip)[4])
{
    for (unsigned i = 0; i < 4; ++i)
        if (((place.ip[i] ^ ip[i]) & place.mask[i]) != 0)
            return true;
    return false;
}

}  // namespace boot
