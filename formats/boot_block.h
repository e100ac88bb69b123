// SPDX-License-Identifier: MIT
// The boot parameter block: what a network boot loader knows about the disks and their servers, and
// the record in conventional memory by which it hands the block over.
#pragma once

#include "formats/endian.h"

namespace formats {

constexpr unsigned disk_count_max = 4;
constexpr unsigned sector_bytes = 512;

// Names one server to the transport, which alone interprets it: IPv4 address, hardware address, UDP
// port in network order, two zero bytes. A first dword of 0 names no server.
struct ServerRecord {
    std::uint8_t Ip[4];
    std::uint8_t Hardware[6];
    Be16 Port;
    std::uint8_t Zero[2];

    constexpr bool names_a_server() const { return (Ip[0] | Ip[1] | Ip[2] | Ip[3]) != 0; }
};

// Boot_Flags
constexpr std::uint8_t boot_flag_no_image_sync = 0x04;
constexpr std::uint8_t boot_flag_tag_slot = 0x10;

// Disk_Flags
constexpr std::uint8_t disk_flag_slots = 0x0F;  // low nibble: concurrent chunks
constexpr std::uint8_t disk_flag_ram_cache = 0x10;
constexpr std::uint8_t disk_flag_split_writes = 0x20;  // a write is split into write packets, not 64 KB
constexpr std::uint8_t disk_flag_delay_load = 0x40;
constexpr std::uint8_t disk_flag_one_slot = 0x80;

// Bit of the third byte of Disk_Id: the disk has a slave server that mirrors its writes.
constexpr std::uint8_t disk_id_mirror = 0x10;

struct Disk_Info {
    Le32 Disk_Status;
    std::uint8_t Reserved_4[2];
    std::uint8_t Disk_Id[4];
    std::uint8_t Disk_Parm[4];
    std::uint8_t Reserved_14[12];
    Le32 Disk_Secs;        // size in 512-byte sectors; 0: no disk or no medium
    std::uint8_t Read_KB;  // as handed over: high nibble + 1 is the packet size in KB
    std::uint8_t Write_KB;
    std::uint8_t Disk_Flags;
    std::uint8_t Retry_Mins;
    std::uint8_t Reserved_34[2];
};

// Boot_Mode
constexpr std::uint32_t boot_mode_network = 0;
constexpr std::uint32_t boot_mode_local_image = 7;

// Disk_Nums while the transport is still looking for a server.
constexpr std::uint8_t disk_nums_searching = 0xFF;

constexpr std::uint32_t load_mark_refuse = 0x00FF00FF;

// Rack_Level from which the peer answers status queries.
constexpr std::uint16_t rack_level_status_query = 0x0705;

struct Boot_Param {
    Le32 Boot_Mode;
    std::uint8_t Lun_Nums;
    std::uint8_t Local_Nums;
    std::uint8_t Disk_Nums;
    std::uint8_t Boot_Flags;
    std::uint8_t Identity_8[4];
    Le32 Tag_Key;
    std::uint8_t Identity_16[4];
    Le32 Load_Mark;
    std::uint8_t Identity_24[8];
    Le16 Boot_Port;
    std::uint8_t Identity_34[8];
    std::uint8_t Reserved_42[4];
    Le16 Rack_Level;
    Disk_Info Disks[disk_count_max];
    std::uint8_t Reserved_192[24];
    ServerRecord Boot_Server;
    ServerRecord Main_Server[disk_count_max];
    ServerRecord Slave_Server[disk_count_max];
    std::uint8_t Reserved_342[18];
};

// Left on a 16-byte boundary of conventional memory by the boot loader.
struct BootRecord {
    char Signature[9];
    std::uint8_t Reserved_9;
    Le16 Bound;  // at most boot_record_bound_max
    Le16 Kind;   // boot_record_kind
    Le16 Rack_Level;
    std::uint8_t Reserved_16[8];
    Boot_Param Param;
};

constexpr char boot_record_signature[] = "KTWBSTRAP";
constexpr std::uint16_t boot_record_bound_max = 256;
constexpr std::uint16_t boot_record_kind = 22;

// Conventional memory: where records are searched, from the top of base memory up.
constexpr std::uint32_t low_memory_bytes = 0xA0000;
constexpr std::uint32_t base_memory_kb_address = 0x413;  // 16-bit BIOS word
constexpr std::uint32_t low_memory_search_end = 0x9F4CA;
constexpr std::uint32_t paragraph_bytes = 16;

static_assert(sizeof(ServerRecord) == 14);
static_assert(offsetof(ServerRecord, Hardware) == 4);
static_assert(offsetof(ServerRecord, Port) == 10);

static_assert(sizeof(Disk_Info) == 36);
static_assert(offsetof(Disk_Info, Disk_Id) == 6);
static_assert(offsetof(Disk_Info, Disk_Parm) == 10);
static_assert(offsetof(Disk_Info, Disk_Secs) == 26);
static_assert(offsetof(Disk_Info, Read_KB) == 30);
static_assert(offsetof(Disk_Info, Write_KB) == 31);
static_assert(offsetof(Disk_Info, Disk_Flags) == 32);
static_assert(offsetof(Disk_Info, Retry_Mins) == 33);

static_assert(sizeof(Boot_Param) == 360);
static_assert(offsetof(Boot_Param, Lun_Nums) == 4);
static_assert(offsetof(Boot_Param, Local_Nums) == 5);
static_assert(offsetof(Boot_Param, Disk_Nums) == 6);
static_assert(offsetof(Boot_Param, Boot_Flags) == 7);
static_assert(offsetof(Boot_Param, Tag_Key) == 12);
static_assert(offsetof(Boot_Param, Load_Mark) == 20);
static_assert(offsetof(Boot_Param, Boot_Port) == 32);
static_assert(offsetof(Boot_Param, Rack_Level) == 46);
static_assert(offsetof(Boot_Param, Disks) == 48);
static_assert(offsetof(Boot_Param, Boot_Server) == 216);
static_assert(offsetof(Boot_Param, Main_Server) == 230);
static_assert(offsetof(Boot_Param, Slave_Server) == 286);

static_assert(sizeof(BootRecord) == 384);
static_assert(offsetof(BootRecord, Bound) == 10);
static_assert(offsetof(BootRecord, Kind) == 12);
static_assert(offsetof(BootRecord, Rack_Level) == 14);
static_assert(offsetof(BootRecord, Param) == 24);
static_assert(sizeof(boot_record_signature) - 1 == sizeof(BootRecord::Signature));

}  // namespace formats
