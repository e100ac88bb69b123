// SPDX-License-Identifier: MIT
// What goes before the data of a reply, simple or as the only chunk of a structured one. No I/O; any thread.
#pragma once

#include <array>
#include <cstdint>

#include "station/nbd_format.h"

namespace station {

struct ReplyHeader {
    std::array<std::uint8_t, sizeof(nbd::StructuredReply) + sizeof(nbd::StatusChunk)> bytes;
    std::uint32_t size_bytes = 0;
};

ReplyHeader simple_reply(std::uint64_t cookie, std::uint32_t error);

// To a read: the data follow, or are zeros and do not.
ReplyHeader data_reply(std::uint64_t cookie, std::uint64_t offset, std::uint32_t length);
ReplyHeader hole_reply(std::uint64_t cookie, std::uint64_t offset, std::uint32_t length);
// To a question for the block status: what the next bytes are.
ReplyHeader status_reply(std::uint64_t cookie, std::uint32_t length, std::uint32_t flags);
// To either.
ReplyHeader error_reply(std::uint64_t cookie, std::uint32_t error);

}  // namespace station
