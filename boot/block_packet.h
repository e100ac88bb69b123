// SPDX-License-Identifier: MIT
// One packet of the block protocol from the boot program's side: its request, its fragments, and what an
// answer does to it; and how patient its sender is. Needs no PC; answers are not trusted.
#pragma once

#include "formats/wire.h"

namespace boot {

constexpr unsigned ticks_per_second = 18;  // of the BIOS clock

// Where a disk's packets go, and what they are like.
struct DiskPlace {
    formats::ServerRecord server;
    formats::ServerRecord slave;  // of a mirrored disk; names no server: none, or none any more
    std::uint8_t id[4];
    std::uint8_t parm[4];
    std::uint32_t sectors;
    std::uint32_t tag_key;
    std::uint16_t read_sectors_max, write_sectors_max;  // of a packet
    std::uint16_t retry_minutes;                        // 0: no end
    bool tag_slot_form;
    bool answers_queries;
};

DiskPlace make_disk_place(const formats::Boot_Param& param, unsigned lun);

// What an answer did.
struct Landing {
    bool is_ours;       // else nothing of it counts
    bool has_data;      // its bytes go to `offset` of the packet
    bool is_zeros;      // the whole packet is zeros
    bool wants_resend;  // the server lacks the fragments that are outstanding
    std::uint16_t offset, size;
};

class BlockPacket {
public:
    // For `sectors` at `lba`, at most the disk's maximum.
    void begin(const DiskPlace& disk, bool write, std::uint32_t lba, unsigned sectors,
               std::uint16_t sequence);

    // The request of a read with what has arrived, or a status query.
    const formats::WireHeader& request(bool status_query);
    // Of a write, from 0; its data is at Frag_Off of the packet, Frag_Size bytes.
    const formats::WireHeader& fragment(unsigned index);
    bool is_outstanding(unsigned index) const { return (outstanding_ >> index & 1) != 0; }
    unsigned last_outstanding() const;  // fragment, from 0
    unsigned sectors() const { return length_ / formats::sector_bytes; }
    unsigned fragments() const { return formats::fragment_count(length_); }

    Landing take(const std::uint8_t* packet, unsigned size_bytes);
    bool has_begun() const { return outstanding_ != all(); }
    bool is_complete() const { return complete_; }
    void resend_all() { outstanding_ = all(); }

private:
    std::uint16_t all() const { return static_cast<std::uint16_t>((1u << fragments()) - 1); }
    Landing take_data(const formats::WireHeader& answer, unsigned data_bytes);

    formats::WireHeader header_;
    std::uint16_t length_, outstanding_;
    bool write_, complete_;
};

// How long to wait before the next resend, after so many: growing from a sixth of a second to four.
constexpr unsigned wait_ticks(unsigned resends)
{
    const unsigned ticks = 3u << (resends < 5 ? resends : 5);
    return ticks < 4 * ticks_per_second ? ticks : 4 * ticks_per_second;
}

// A mirrored disk's server is given up after as long a silence as the driver bears, whose packets may have 21
// time-outs of 1.11 s each, and not one more.
constexpr unsigned mirror_patience_ticks = 22 * 111 * ticks_per_second / 100;

// How many sectors may be under way at a time: fewer after a loss, as cards with few receive buffers lose the
// end of every long answer, and more again with every packet that arrives whole.
class Window {
public:
    // Of the next packet. 0: wait for what is in flight.
    unsigned next_sectors(unsigned in_flight, unsigned wanted, unsigned packet_max) const;
    void packet_done(bool was_resent);

private:
    static constexpr std::uint8_t sectors_max = 4 * formats::packet_bytes_max / formats::sector_bytes;
    static constexpr std::uint8_t sectors_begin = formats::packet_bytes_max / formats::sector_bytes;
    static constexpr std::uint8_t sectors_min = 4, packet_min = 8, losses_spared = 8;
    std::uint8_t sectors_ = sectors_begin;
    std::uint8_t spared_ = 0;  // packets that were under way at the last loss and do not count
};

}  // namespace boot
