// SPDX-License-Identifier: MIT
// Datagrams through the card's services, and sectors through datagrams. One call at a time; interrupts are
// on.
#pragma once

#include "boot/block_packet.h"
#include "boot/dhcp_answer.h"
#include "boot/pc.h"

namespace boot {

constexpr unsigned datagram_bytes_max = 1472;

// Whether the card offers its services. Learns from its DHCP answers where we are.
bool open_card(NetworkPlace& place);
bool open_udp(const NetworkPlace& place);
std::uint16_t own_port();

bool send(const std::uint8_t (&ip)[4], std::uint16_t port, const void* datagram, unsigned size_bytes);
// Bytes of a datagram for us, in receive_buffer; 0: none is there.
unsigned receive();
extern std::uint8_t receive_buffer[datagram_bytes_max];

enum class Direction : std::uint8_t { read, write };

// At any address below 1 MB + 64 KB. Returns once every sector is done, or false when the disk's patience is
// at its end, which a read of LUN 0 has not.
bool transfer(unsigned lun, Direction direction, std::uint32_t lba, unsigned sectors, std::uint32_t linear);

void set_disk(unsigned lun, const DiskPlace& disk, const formats::ServerRecord& slave);
const DiskPlace& disk(unsigned lun);

}  // namespace boot
