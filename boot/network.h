// SPDX-License-Identifier: MIT
// The card's services: its DHCP answers, and datagrams (medium.h).
#pragma once

#include "boot/dhcp_answer.h"
#include "boot/medium.h"

namespace boot {

// Whether the card offers its services. Learns from its DHCP answers where we are.
bool open_card(NetworkPlace& place);
bool open_udp(const NetworkPlace& place);
std::uint16_t own_port();

}  // namespace boot
