// SPDX-License-Identifier: MIT
// How a PC that boots from the network asks a block server for its disks, and what the boot program leaves in
// conventional memory beside the boot record. Numbers on the wire are big-endian, but for the boot parameter
// block inside.
#pragma once

#include "formats/boot_block.h"
#include "formats/endian.h"

namespace formats {

// The first four bytes of both packets, which no disk may have as its id.
constexpr std::uint8_t boot_mark[4] = {'Q', 'R', 'N', 'B'};
constexpr std::uint8_t boot_version = 1;
constexpr std::uint16_t server_port_default = 8520;

// Kind
constexpr std::uint8_t boot_kind_request = 1;
constexpr std::uint8_t boot_kind_answer = 2;
constexpr std::uint8_t boot_kind_refusal = 3;

// Abilities
constexpr std::uint16_t boot_ability_write = 0x0001;

// A packet of the same version may be longer than its structure; what follows is for later versions.
struct BootRequest {
    std::uint8_t Mark[4];
    std::uint8_t Version;
    std::uint8_t Kind;
    Be16 Length;  // of the whole packet
    Be32 Cookie;  // comes back in the answer
    std::uint8_t Hardware[6];
    std::uint8_t Ip[4];  // the PC's own
    Be16 Abilities;
    std::uint8_t Uuid[16];  // zero: not known
    std::uint8_t Reserved_40[24];
};

struct BootAnswer {
    std::uint8_t Mark[4];
    std::uint8_t Version;
    std::uint8_t Kind;
    Be16 Length;
    Be32 Cookie;
    std::uint8_t Hardware[6];  // the request's
    Be16 Rack_Level;           // protocol level
    std::uint8_t Reserved_20[4];
    char Text[80];  // zero-terminated line for the screen; of a refusal the reason
    Boot_Param Param;
};

static_assert(sizeof(BootRequest) == 64);
static_assert(offsetof(BootRequest, Length) == 6);
static_assert(offsetof(BootRequest, Cookie) == 8);
static_assert(offsetof(BootRequest, Hardware) == 12);
static_assert(offsetof(BootRequest, Ip) == 18);
static_assert(offsetof(BootRequest, Abilities) == 22);
static_assert(offsetof(BootRequest, Uuid) == 24);
static_assert(sizeof(BootAnswer) == 464);
static_assert(offsetof(BootAnswer, Rack_Level) == 18);
static_assert(offsetof(BootAnswer, Text) == 24);
static_assert(offsetof(BootAnswer, Param) == 104);

// Directly behind the boot record: the PC's place in the network, for a transport driver.
struct NetworkRecord {
    char Signature[8];
    Le16 Length;
    Le16 Version;
    std::uint8_t Hardware[6];
    std::uint8_t Ip[4];
    std::uint8_t Mask[4];
    std::uint8_t Gateway[4];  // zero: none
    std::uint8_t Server[4];
    Be16 Server_Port;
    Be16 Own_Port;
    std::uint8_t Reserved_38[25];
    std::uint8_t Checksum;  // makes the sum of all bytes 0
};
constexpr char network_record_signature[] = "QRNBTNET";
constexpr std::uint16_t network_record_version = 1;

static_assert(sizeof(NetworkRecord) == 64);
static_assert(offsetof(NetworkRecord, Hardware) == 12);
static_assert(offsetof(NetworkRecord, Ip) == 18);
static_assert(offsetof(NetworkRecord, Mask) == 22);
static_assert(offsetof(NetworkRecord, Gateway) == 26);
static_assert(offsetof(NetworkRecord, Server) == 30);
static_assert(offsetof(NetworkRecord, Server_Port) == 34);
static_assert(offsetof(NetworkRecord, Own_Port) == 36);
static_assert(offsetof(NetworkRecord, Checksum) == 63);

}  // namespace formats
