// SPDX-License-Identifier: MIT
// Packets between a workstation and its block servers. One datagram carries one packet: the header,
// then the data bytes, nothing else. Fields are big-endian but for Seq.
#pragma once

#include "formats/boot_block.h"
#include "formats/endian.h"

namespace formats {

struct WireHeader {
    std::uint8_t Disk_Id[4];  // answers carry the same four bytes
    std::uint8_t Sub_Code;
    std::uint8_t Kind;
    Be16 Tag;
    Le16 Seq;                  // low half of the disk's read or write sequence counter
    std::uint8_t Worker_Byte;  // low 3 bits: worker index; high 5: sectors already routed, modulo 32
    std::uint8_t Pkt_Index;    // packet within the tagged transfer, from 0
    std::uint8_t Disk_Parm[4];
    Be16 Recv_Mask;    // bit k-1 set: fragment k has arrived
    Be48 Byte_Offset;  // low 48 bits of engine sector * 512; engine sector = LBA + 1
    Be16 Length;       // bytes of the packet, at most packet_bytes_max
    // The rest is present in write fragments and read data only.
    Be16 Frag_Off;   // offset of this fragment within the packet
    Be16 Frag_Size;  // bytes of this fragment
    std::uint8_t Zero;
    std::uint8_t Frag_Num;  // from 1
    Be16 Frag_Cnt;          // fragments of the packet; in read data 0: the whole packet is zeros
};

// Engine sectors are signed 32-bit numbers in the driver, and the last one is the disk's number of sectors.
constexpr std::uint32_t disk_sectors_max = 0x7FFFFFFF;

constexpr unsigned request_bytes = 26;  // read request, status query, shutdown notice, acknowledgement
constexpr unsigned header_bytes = 34;   // write fragment, read data
constexpr unsigned fragment_bytes_max = 1386;
constexpr unsigned packet_bytes_max = 16384;
constexpr unsigned worker_index_mask = 7;
constexpr unsigned worker_sector_unit = 8;  // one sector in the high 5 bits of Worker_Byte
constexpr unsigned worker_sector_mask = 31;

// Answers match a packet in flight by Disk_Id (bytes 0 to 3) and by bytes 6 to 15.
constexpr unsigned match_offset = 6;
constexpr unsigned match_bytes = 10;

// Kind (byte 5)
constexpr std::uint8_t kind_read = 0x5C;
constexpr std::uint8_t kind_read_data = 0x5D;
constexpr std::uint8_t kind_write = 0x5E;
constexpr std::uint8_t kind_write_done = 0x5F;
constexpr std::uint8_t kind_acknowledge = 0x5B;
constexpr std::uint8_t kind_sync_read = 0x8C;
constexpr std::uint8_t kind_shutdown = 0xA4;
constexpr std::uint8_t kind_retry_limit = 0x55;  // with sub_retry_limit

// Sub_Code (byte 4)
constexpr std::uint8_t sub_request = 0x00;
constexpr std::uint8_t sub_status_query = 0x01;
constexpr std::uint8_t sub_retry_limit = 0xAA;

constexpr unsigned fragment_count(unsigned packet_bytes)
{
    return (packet_bytes + fragment_bytes_max - 1) / fragment_bytes_max;
}

static_assert(sizeof(WireHeader) == header_bytes);
static_assert(offsetof(WireHeader, Kind) == 5);
static_assert(offsetof(WireHeader, Tag) == match_offset);
static_assert(offsetof(WireHeader, Seq) == 8);
static_assert(offsetof(WireHeader, Worker_Byte) == 10);
static_assert(offsetof(WireHeader, Pkt_Index) == 11);
static_assert(offsetof(WireHeader, Disk_Parm) == 12);
static_assert(offsetof(WireHeader, Recv_Mask) == match_offset + match_bytes);
static_assert(offsetof(WireHeader, Byte_Offset) == 18);
static_assert(offsetof(WireHeader, Length) == 24);
static_assert(offsetof(WireHeader, Frag_Off) == request_bytes);
static_assert(offsetof(WireHeader, Frag_Size) == 28);
static_assert(offsetof(WireHeader, Frag_Num) == 31);
static_assert(offsetof(WireHeader, Frag_Cnt) == 32);
static_assert(fragment_count(packet_bytes_max) <= 16, "every fragment has a bit in Recv_Mask");

// The server's status poll. Answers go to the address record that the poll carries.
struct PollRequest {
    std::uint8_t Mark[2];  // poll_mark
    std::uint8_t Cookie_2[2];
    std::uint8_t Reserved_4[2];
    std::uint8_t Cookie_6[2];
    ServerRecord Poller;
};

struct PollDisk {
    Le32 Disk_Status;
    Le32 Rd_Seq;
    Le32 Rd_Secs;
    Le32 Rd_TimeOuts;
    Le32 Wr_Seq;
    Le32 Wr_Secs;
    Le32 Wr_TimeOuts;
};

struct PollReply {
    Le32 Mark;                  // the poll's first dword plus 1
    std::uint8_t Cookie[2];     // the poll's bytes 6 and 7
    std::uint8_t Version[2];    // poll_version
    std::uint8_t Identity[34];  // bytes 8 to 41 of the boot parameter block
    PollDisk Disks[disk_count_max];
    std::uint8_t Cache[disk_count_max][16];  // first words of the disk's RAM cache object, or zeros
    Le32 Image_Units;                        // 64 KB units that cover the system image; 0: none
    Le32 Image_Position;                     // of its synchronisation
};

// The reply is built in the received buffer, the poller's record behind it.
constexpr unsigned poll_buffer_bytes = 240;
constexpr std::uint8_t poll_mark[2] = {0x01, 0x38};
constexpr std::uint8_t poll_reply_mark[2] = {0x02, 0x38};
constexpr std::uint8_t poll_version[2] = {0x05, 0x04};

static_assert(sizeof(PollRequest) == 22);
static_assert(offsetof(PollRequest, Cookie_6) == 6);
static_assert(offsetof(PollRequest, Poller) == 8);
static_assert(sizeof(PollDisk) == 28);
static_assert(sizeof(PollReply) == 226);
static_assert(offsetof(PollReply, Cookie) == 4);
static_assert(offsetof(PollReply, Identity) == 8);
static_assert(offsetof(PollReply, Disks) == 42);
static_assert(offsetof(PollReply, Cache) == 154);
static_assert(offsetof(PollReply, Image_Units) == 218);
static_assert(offsetof(PollReply, Image_Position) == 222);
static_assert(sizeof(PollReply) + sizeof(ServerRecord) == poll_buffer_bytes);

// The answer to a disk's cache negotiation: the data of a 512-byte read of engine sector 0.
struct NegotiationReply {
    Le32 Value;       // only printed
    char Text[128];   // zero-terminated, only printed
    Le32 Cache_Word;  // 0: no RAM cache; otherwise the low 16 bits are its size in MB
    std::uint8_t Reserved_136[376];
};

static_assert(sizeof(NegotiationReply) == sector_bytes);
static_assert(offsetof(NegotiationReply, Text) == 4);
static_assert(offsetof(NegotiationReply, Cache_Word) == 132);

}  // namespace formats
