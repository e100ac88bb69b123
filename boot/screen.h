// SPDX-License-Identifier: MIT
// Text on the PC's screen, through the BIOS.
#pragma once

#include "formats/boot_block.h"

namespace boot {

void print(const char* text);
void print_number(std::uint32_t number);
void print_ip(const std::uint8_t (&ip)[4]);
void print_hardware(const std::uint8_t (&address)[6]);
void print_place(const std::uint8_t (&ip)[4], std::uint16_t port);

}  // namespace boot
