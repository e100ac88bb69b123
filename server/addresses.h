// SPDX-License-Identifier: MIT
// Addresses as people write them. No I/O but for the list of this machine's networks; any thread.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "formats/boot_block.h"

namespace server {

using HardwareAddress = std::array<std::uint8_t, 6>;

struct Network {
    std::uint32_t address;  // the first byte is the highest
    std::uint32_t mask;

    bool contains(const std::uint8_t (&ip)[4]) const;
    std::string text() const;
};

std::string to_text(const formats::ServerRecord& address);  // ADDR:PORT
std::string ip_text(const std::uint8_t (&ip)[4]);
std::string to_text(const HardwareAddress& address);

// Nothing for a text that is none.
std::optional<formats::ServerRecord> host_of(std::string_view text);     // an IPv4 address
std::optional<formats::ServerRecord> address_of(std::string_view text);  // ADDR:PORT, any port
std::optional<Network> network_of(std::string_view text);                // ADDR/BITS, or one address
std::optional<HardwareAddress> hardware_of(std::string_view text);       // 52:54:00:12:34:56

// Those that this machine's own addresses lie in: the one of `listen`, or all of them for 0.0.0.0.
std::vector<Network> networks_of(const formats::ServerRecord& listen);

}  // namespace server
