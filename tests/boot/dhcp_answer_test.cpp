// SPDX-License-Identifier: MIT
// Where the server is, as DHCP tells it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "boot/dhcp_answer.h"

using namespace boot;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes dhcp(Bytes options, std::uint8_t next_server_last = 2)
{
    Bytes packet(240);
    const std::uint8_t own[] = {10, 0, 2, 15}, next[] = {10, 0, 2, next_server_last},
                       magic[] = {99, 130, 83, 99};
    std::memcpy(&packet[16], own, 4);
    if (next_server_last != 0)
        std::memcpy(&packet[20], next, 4);
    packet[28] = 0x52;
    std::memcpy(&packet[236], magic, 4);
    packet.insert(packet.end(), options.begin(), options.end());
    return packet;
}

Bytes root_path(const std::string& text)
{
    Bytes option = {17, static_cast<std::uint8_t>(text.size())};
    option.insert(option.end(), text.begin(), text.end());
    return option;
}

NetworkPlace place_of(const Bytes& packet)
{
    NetworkPlace place{};
    take_dhcp_packet(place, packet.data(), static_cast<unsigned>(packet.size()));
    return place;
}

TEST(DhcpAnswer, Root_path_goes_before_the_next_server)
{
    const auto with = [](const std::string& text) { return place_of(dhcp(root_path(text))); };
    EXPECT_EQ(with("qrn:10.9.8.7:4660").server[3], 7);
    EXPECT_EQ(with("qrn:10.9.8.7:4660").server_port, 4660);
    EXPECT_EQ(with("qrn:10.9.8.7").server_port, 8520);
    EXPECT_EQ(with(std::string("qrn:10.9.8.7\0", 13)).server[0], 10);
    EXPECT_EQ(with("/export/root").server[3], 2) << "somebody else's root path";
    EXPECT_FALSE(with("/export/root").root_path_wrong);
    for (const char* wrong : {"qrn:", "qrn:10.9.8", "qrn:10.9.8.256", "qrn:10.9.8.7:0", "qrn:10.9.8.7:65536",
                              "qrn:10.9.8.7:", "qrn:10.9.8.7x", "qrn:0.0.0.0", "qrn:10..8.7"})
        EXPECT_TRUE(with(wrong).root_path_wrong) << wrong;
}

TEST(DhcpAnswer, An_earlier_packet_goes_before_a_later_one_field_by_field)
{
    NetworkPlace place{};
    const Bytes boot = dhcp({255}, 9),
                address = dhcp({0, 1, 4, 255, 255, 255, 0, 3, 8, 10, 0, 2, 1, 1, 1, 1, 1, 255});
    for (const Bytes& packet : {boot, address})
        take_dhcp_packet(place, packet.data(), static_cast<unsigned>(packet.size()));
    EXPECT_EQ(place.server[3], 9);
    EXPECT_EQ(place.mask[2], 255);
    EXPECT_EQ(place.gateway[3], 1);
    EXPECT_EQ(place.hardware[0], 0x52);
    const std::uint8_t near[4] = {10, 0, 2, 77}, far[4] = {10, 0, 3, 77};
    EXPECT_FALSE(is_elsewhere(place, near));
    EXPECT_TRUE(is_elsewhere(place, far));
}

TEST(DhcpAnswer, Options_that_run_out_of_the_packet_are_not_read)
{
    for (const Bytes& options : {Bytes{1}, Bytes{1, 4}, Bytes{1, 4, 255, 255, 255},
                                 Bytes{17, 200, 'q', 'r', 'n', ':'}, Bytes{0, 0, 0}}) {
        const NetworkPlace place = place_of(dhcp(options));
        EXPECT_TRUE(is_zero(place.mask));
        EXPECT_EQ(place.server_port, 0);
    }
    EXPECT_TRUE(is_zero(place_of(Bytes(239, 1)).ip));
}

}  // namespace
