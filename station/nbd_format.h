// SPDX-License-Identifier: MIT
// The network block device protocol's bytes: fixed newstyle handshake, simple and structured replies, as
// public clients speak it. All integers are big-endian.
#pragma once

#include <cstdint>

#include "formats/endian.h"

namespace station::nbd {

using formats::Be16;
using formats::Be32;
using formats::Be64;

constexpr std::uint64_t greeting_magic = 0x4e42444d41474943;  // "NBDMAGIC"
constexpr std::uint64_t option_magic = 0x49484156454F5054;    // "IHAVEOPT"
constexpr std::uint64_t option_reply_magic = 0x0003e889045565a9;
constexpr std::uint32_t request_magic = 0x25609513;
constexpr std::uint32_t simple_reply_magic = 0x67446698;
constexpr std::uint32_t structured_reply_magic = 0x668e33ef;

// Handshake flags; the client's have the same values in 32 bits.
constexpr std::uint16_t flag_fixed_newstyle = 1;
constexpr std::uint16_t flag_no_zeroes = 2;

enum class Option : std::uint32_t {
    export_name = 1,
    abort = 2,
    list = 3,
    info = 6,
    go = 7,
    structured_reply = 8,
    list_meta_context = 9,
    set_meta_context = 10
};

// Option replies
constexpr std::uint32_t reply_ack = 1;
constexpr std::uint32_t reply_server = 2;
constexpr std::uint32_t reply_info = 3;
constexpr std::uint32_t reply_meta_context = 4;
constexpr std::uint32_t reply_error_unsupported = 0x80000001;
constexpr std::uint32_t reply_error_invalid = 0x80000003;
constexpr std::uint32_t reply_error_unknown = 0x80000006;
constexpr std::uint32_t reply_error_too_big = 0x80000009;

enum class Info : std::uint16_t { export_size = 0, name = 1, description = 2, block_size = 3 };

// Transmission flags
constexpr std::uint16_t transmission_has_flags = 1;
constexpr std::uint16_t transmission_read_only = 2;
constexpr std::uint16_t transmission_send_flush = 4;
constexpr std::uint16_t transmission_send_fua = 8;
constexpr std::uint16_t transmission_send_trim = 32;
constexpr std::uint16_t transmission_send_write_zeroes = 64;
constexpr std::uint16_t transmission_send_df = 128;
constexpr std::uint16_t transmission_can_multi_conn = 256;

enum class Command : std::uint16_t {
    read = 0,
    write = 1,
    disconnect = 2,
    flush = 3,
    trim = 4,
    write_zeroes = 6,
    block_status = 7
};

// Command flags
constexpr std::uint16_t command_fua = 1;      // answered once it is where a flush would have brought it
constexpr std::uint16_t command_no_hole = 2;  // of write_zeroes: zeros that take up room
constexpr std::uint16_t command_df = 4;       // of read: one chunk of a reply
constexpr std::uint16_t command_req_one = 8;  // of block_status: one extent

// The one context of block status that clients can choose, and the number it has.
constexpr char allocation_context[] = "base:allocation";
constexpr std::uint32_t allocation_context_id = 1;
constexpr std::uint32_t extent_reads_zero = 2;

// Chunks of structured replies
constexpr std::uint16_t chunk_done = 1;
enum class Chunk : std::uint16_t { offset_data = 1, offset_hole = 2, block_status = 5, error = 0x8001 };

// Errors of simple replies
constexpr std::uint32_t error_not_permitted = 1;
constexpr std::uint32_t error_io = 5;
constexpr std::uint32_t error_no_memory = 12;
constexpr std::uint32_t error_invalid = 22;
constexpr std::uint32_t error_no_space = 28;

constexpr std::uint32_t name_bytes_max = 4096;
constexpr std::uint32_t request_bytes_max = 32u << 20;
constexpr unsigned export_name_zeroes = 124;

struct Greeting {
    Be64 magic;
    Be64 option_magic;
    Be16 flags;
};

struct OptionHeader {
    Be64 magic;
    Be32 option;
    Be32 length;
};

struct OptionReply {
    Be64 magic;
    Be32 option;
    Be32 type;
    Be32 length;
};

struct ExportNameReply {
    Be64 size_bytes;
    Be16 transmission_flags;
};

struct InfoExport {
    Be16 type;
    Be64 size_bytes;
    Be16 transmission_flags;
};

struct InfoBlockSize {
    Be16 type;
    Be32 minimum_bytes;
    Be32 preferred_bytes;
    Be32 maximum_bytes;
};

struct RequestHeader {
    Be32 magic;
    Be16 flags;
    Be16 command;
    Be64 cookie;  // the client's own, repeated in the reply
    Be64 offset;
    Be32 length;
};

struct SimpleReply {
    Be32 magic;
    Be32 error;
    Be64 cookie;
};

struct StructuredReply {
    Be32 magic;
    Be16 flags;
    Be16 type;
    Be64 cookie;
    Be32 length;  // of what follows
};

struct DataChunk {
    Be64 offset;
};

struct HoleChunk {
    Be64 offset;
    Be32 length;
};

struct ErrorChunk {
    Be32 error;
    Be16 text_bytes;
};

struct StatusChunk {
    Be32 context;
    Be32 length;
    Be32 flags;
};

static_assert(sizeof(Greeting) == 18);
static_assert(offsetof(Greeting, flags) == 16);
static_assert(sizeof(OptionHeader) == 16);
static_assert(offsetof(OptionHeader, length) == 12);
static_assert(sizeof(OptionReply) == 20);
static_assert(offsetof(OptionReply, length) == 16);
static_assert(sizeof(ExportNameReply) == 10);
static_assert(sizeof(InfoExport) == 12);
static_assert(offsetof(InfoExport, transmission_flags) == 10);
static_assert(sizeof(InfoBlockSize) == 14);
static_assert(sizeof(RequestHeader) == 28);
static_assert(offsetof(RequestHeader, cookie) == 8);
static_assert(offsetof(RequestHeader, length) == 24);
static_assert(sizeof(SimpleReply) == 16);
static_assert(offsetof(SimpleReply, cookie) == 8);
static_assert(sizeof(StructuredReply) == 20);
static_assert(offsetof(StructuredReply, length) == 16);
static_assert(sizeof(DataChunk) == 8);
static_assert(sizeof(HoleChunk) == 12);
static_assert(sizeof(ErrorChunk) == 6);
static_assert(sizeof(StatusChunk) == 12);

}  // namespace station::nbd
