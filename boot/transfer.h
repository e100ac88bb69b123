// SPDX-License-Identifier: MIT
// Sectors through datagrams, for all disks. One call at a time; on a PC with interrupts on.
//
// Reads have several packets in flight, as many as the window lets; writes one. A server that is silent for
// long loses its place if the disk has a mirror: its slave takes over for good, or is written to no more.
#pragma once

#include "boot/block_packet.h"

namespace boot {

enum class Direction : std::uint8_t { read, write };

// Before the first transfer. Answers to whoever had our address before must not match, so it is another
// number every time.
void start_sequence(std::uint16_t sequence);
void set_disk(unsigned lun, const DiskPlace& disk);
const DiskPlace& disk(unsigned lun);
// Where the servers that are in use are kept: a server that lost its place has missed writes, and the
// system's own driver must not take it up again.
void keep_servers_in(formats::Boot_Param& param);

// At any address below 1 MB + 64 KB. Returns once every sector is done, or false when the disk's patience is
// at its end, which a read of LUN 0 has not.
bool transfer(unsigned lun, Direction direction, std::uint32_t lba, unsigned sectors, std::uint32_t linear);

}  // namespace boot
