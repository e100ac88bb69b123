// SPDX-License-Identifier: MIT
// Frames as they travel on Ethernet, as far as the block protocol needs them: ARP, and IPv4 with UDP.
#pragma once

#include "formats/endian.h"

namespace formats {

struct EthernetHeader {
    std::uint8_t To[6];
    std::uint8_t From[6];
    Be16 Type;
};
constexpr std::uint16_t ethernet_type_ipv4 = 0x0800;
constexpr std::uint16_t ethernet_type_arp = 0x0806;

struct ArpPacket {
    Be16 Hardware_Type;
    Be16 Protocol_Type;
    std::uint8_t Hardware_Bytes;
    std::uint8_t Protocol_Bytes;
    Be16 Operation;
    std::uint8_t Sender_Hardware[6];
    std::uint8_t Sender_Ip[4];
    std::uint8_t Target_Hardware[6];
    std::uint8_t Target_Ip[4];
};
constexpr std::uint16_t arp_hardware_ethernet = 1;
constexpr std::uint16_t arp_request = 1;
constexpr std::uint16_t arp_answer = 2;

struct ArpFrame {
    EthernetHeader Ethernet;
    ArpPacket Arp;
};

struct Ipv4Header {
    std::uint8_t Version_And_Words;  // version in the high nibble, header length in 32-bit words
    std::uint8_t Service;
    Be16 Bytes;  // header and all behind it
    Be16 Id;
    Be16 Fragment;  // flags in the high three bits
    std::uint8_t Hops_Left;
    std::uint8_t Protocol;
    std::uint8_t Checksum[2];
    std::uint8_t From[4];
    std::uint8_t To[4];
};
constexpr std::uint16_t ipv4_do_not_fragment = 0x4000;
constexpr std::uint16_t ipv4_part_of_more = 0x3FFF;  // set bits: more follow, or some came before
constexpr std::uint8_t ipv4_protocol_udp = 17;
constexpr unsigned ipv4_header_bytes_max = 60;

struct UdpHeader {
    Be16 From_Port;
    Be16 To_Port;
    Be16 Bytes;                // header and payload
    std::uint8_t Checksum[2];  // zero: none
};

// What stands in front of the payload of a datagram that goes out.
struct DatagramHeaders {
    EthernetHeader Ethernet;
    Ipv4Header Ip;
    UdpHeader Udp;
};

// What the checksum of a datagram begins with.
struct UdpPseudoHeader {
    std::uint8_t From[4];
    std::uint8_t To[4];
    std::uint8_t Zero;
    std::uint8_t Protocol;
    Be16 Bytes;
};

constexpr unsigned ethernet_payload_bytes_max = 1500;

static_assert(sizeof(EthernetHeader) == 14);
static_assert(offsetof(EthernetHeader, From) == 6);
static_assert(offsetof(EthernetHeader, Type) == 12);
static_assert(sizeof(ArpPacket) == 28);
static_assert(offsetof(ArpPacket, Operation) == 6);
static_assert(offsetof(ArpPacket, Sender_Hardware) == 8);
static_assert(offsetof(ArpPacket, Sender_Ip) == 14);
static_assert(offsetof(ArpPacket, Target_Hardware) == 18);
static_assert(offsetof(ArpPacket, Target_Ip) == 24);
static_assert(sizeof(ArpFrame) == 42);
static_assert(sizeof(Ipv4Header) == 20);
static_assert(offsetof(Ipv4Header, Bytes) == 2);
static_assert(offsetof(Ipv4Header, Id) == 4);
static_assert(offsetof(Ipv4Header, Fragment) == 6);
static_assert(offsetof(Ipv4Header, Hops_Left) == 8);
static_assert(offsetof(Ipv4Header, Protocol) == 9);
static_assert(offsetof(Ipv4Header, Checksum) == 10);
static_assert(offsetof(Ipv4Header, From) == 12);
static_assert(offsetof(Ipv4Header, To) == 16);
static_assert(sizeof(UdpHeader) == 8);
static_assert(offsetof(UdpHeader, Bytes) == 4);
static_assert(offsetof(UdpHeader, Checksum) == 6);
static_assert(sizeof(DatagramHeaders) == 42);
static_assert(sizeof(UdpPseudoHeader) == 12);
static_assert(offsetof(UdpPseudoHeader, Bytes) == 10);

}  // namespace formats
