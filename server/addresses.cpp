// SPDX-License-Identifier: MIT
#include "server/addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <memory>

#include <fmt/format.h>

namespace server {

namespace {

std::uint32_t number_of(const std::uint8_t (&ip)[4])
{
    return std::uint32_t{ip[0]} << 24 | std::uint32_t{ip[1]} << 16 | std::uint32_t{ip[2]} << 8 | ip[3];
}

std::optional<unsigned> whole_number(std::string_view text, unsigned most, int base = 10)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size() || value > most)
        return std::nullopt;
    return value;
}

std::uint32_t ip_of(const sockaddr* address)
{
    sockaddr_in internet;
    std::memcpy(&internet, address, sizeof internet);
    return ntohl(internet.sin_addr.s_addr);
}

}  // namespace

bool Network::contains(const std::uint8_t (&ip)[4]) const
{
    return (number_of(ip) & mask) == (address & mask);
}

std::string Network::text() const
{
    return fmt::format("{}.{}.{}.{}/{}", address >> 24, address >> 16 & 255, address >> 8 & 255,
                       address & 255, std::popcount(mask));
}

std::string to_text(const formats::ServerRecord& address)
{
    return fmt::format("{}:{}", ip_text(address.Ip), address.Port.get());
}

std::string ip_text(const std::uint8_t (&ip)[4])
{
    return fmt::format("{}.{}.{}.{}", ip[0], ip[1], ip[2], ip[3]);
}

std::string to_text(const HardwareAddress& address)
{
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", address[0], address[1], address[2],
                       address[3], address[4], address[5]);
}

std::optional<formats::ServerRecord> host_of(std::string_view text)
{
    formats::ServerRecord record{};
    if (inet_pton(AF_INET, std::string(text).c_str(), record.Ip) != 1)
        return std::nullopt;
    return record;
}

std::optional<formats::ServerRecord> address_of(std::string_view text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == text.npos)
        return std::nullopt;
    auto record = host_of(text.substr(0, colon));
    const auto port = whole_number(text.substr(colon + 1), 65535);
    if (!record || !port)
        return std::nullopt;
    record->Port.set(static_cast<std::uint16_t>(*port));
    return record;
}

std::optional<Network> network_of(std::string_view text)
{
    const std::size_t slash = text.find('/');
    const auto host = host_of(text.substr(0, slash));
    const auto bits = slash == text.npos ? std::optional(32u) : whole_number(text.substr(slash + 1), 32);
    if (!host || !bits)
        return std::nullopt;
    const std::uint32_t mask = *bits == 0 ? 0 : ~std::uint32_t{0} << (32 - *bits);
    return Network{number_of(host->Ip) & mask, mask};
}

std::optional<HardwareAddress> hardware_of(std::string_view text)
{
    HardwareAddress address;
    if (text.size() != 3 * address.size() - 1)
        return std::nullopt;
    for (std::size_t i = 0; i < address.size(); ++i) {
        const auto byte = whole_number(text.substr(3 * i, 2), 255, 16);
        if (!byte || (i + 1 < address.size() && text[3 * i + 2] != ':' && text[3 * i + 2] != '-'))
            return std::nullopt;
        address[i] = static_cast<std::uint8_t>(*byte);
    }
    return address;
}

std::vector<Network> networks_of(const formats::ServerRecord& listen)
{
    std::vector<Network> networks;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return networks;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> all(first, freeifaddrs);
    for (const ifaddrs* one = first; one; one = one->ifa_next) {
        if (!one->ifa_addr || !one->ifa_netmask || one->ifa_addr->sa_family != AF_INET)
            continue;
        const std::uint32_t mask = ip_of(one->ifa_netmask);
        const Network network{ip_of(one->ifa_addr) & mask, mask};
        if (!listen.names_a_server() || network.contains(listen.Ip))
            networks.push_back(network);
    }
    return networks;
}

}  // namespace server
