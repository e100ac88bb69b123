// SPDX-License-Identifier: MIT
// The boot request and its answer, and the two records that stay in memory. Needs no PC; answers are not
// trusted.
#pragma once

#include "boot/dhcp_answer.h"

namespace boot {

formats::BootRequest make_boot_request(const NetworkPlace& place, std::uint32_t cookie);

enum class Verdict { foreign, refused, no_disks, bad_disk, accepted };

// Of a packet from the server. Anything but "foreign" is the answer to our request; its text then ends with a
// zero and holds nothing that a screen would not show.
Verdict judge_answer(const std::uint8_t* packet, unsigned size_bytes, const formats::BootRequest& request,
                     formats::BootAnswer& answer);

// Main servers without an address are the server that answered, and any server's address that means its own
// machine is that server's address.
void complete_servers(formats::Boot_Param& param, const NetworkPlace& place);

void make_network_record(formats::NetworkRecord& record, const NetworkPlace& place, std::uint16_t own_port);
void make_boot_record(formats::BootRecord& record, const formats::BootAnswer& answer);

}  // namespace boot
