// SPDX-License-Identifier: MIT
// In place of boot/main.cpp: has datagrams sent, 6 at a time and up to 24 under way, reads them through the
// card's ROM as fast as that gives them, and does nothing with them. What the boot program reads is measured
// by it.
#include "boot/block_packet.h"
#include "boot/network.h"
#include "boot/pc.h"
#include "boot/screen.h"

namespace boot {

extern "C" unsigned boot_main()
{
    constexpr unsigned measured_ticks = 5 * ticks_per_second, burst = 6, under_way_max = 24;
    static NetworkPlace place;
    if (open_card(place) && open_udp(place)) {
        const std::uint8_t start = 0;
        std::uint32_t begin = bios_ticks(), datagrams = 0;
        unsigned under_way = 0;
        for (std::uint32_t last = begin; ticks_since(begin) < measured_ticks;) {
            while (under_way <= under_way_max - burst) {
                send(place.server, place.server_port, &start, sizeof start);
                under_way += burst;
            }
            if (receive() != 0) {
                ++datagrams;
                under_way -= under_way != 0 ? 1 : 0;
                last = bios_ticks();
            } else if (ticks_since(last) > 1) {
                under_way = 0;
            }
        }
        print("loop: ");
        print_number(datagrams);
        print(" datagrams in ");
        print_number(measured_ticks);
        print(" ticks\n");
    }
    for (;;)
        idle();
}

}  // namespace boot
