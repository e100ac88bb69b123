// SPDX-License-Identifier: MIT
#include "station/nbd_reply.h"

#include <cstring>

namespace station {

using namespace nbd;

namespace {

template <typename Layout>
void put(ReplyHeader& header, const Layout& layout)
{
    std::memcpy(header.bytes.data() + header.size_bytes, &layout, sizeof layout);
    header.size_bytes += sizeof layout;
}

template <typename Layout>
ReplyHeader only_chunk(std::uint64_t cookie, Chunk type, const Layout& chunk, std::uint32_t data_bytes = 0)
{
    StructuredReply reply;
    reply.magic.set(structured_reply_magic);
    reply.flags.set(chunk_done);
    reply.type.set(static_cast<std::uint16_t>(type));
    reply.cookie.set(cookie);
    reply.length.set(static_cast<std::uint32_t>(sizeof chunk) + data_bytes);
    ReplyHeader header;
    put(header, reply);
    put(header, chunk);
    return header;
}

}  // namespace

ReplyHeader simple_reply(std::uint64_t cookie, std::uint32_t error)
{
    SimpleReply reply;
    reply.magic.set(simple_reply_magic);
    reply.error.set(error);
    reply.cookie.set(cookie);
    ReplyHeader header;
    put(header, reply);
    return header;
}

ReplyHeader data_reply(std::uint64_t cookie, std::uint64_t offset, std::uint32_t length)
{
    DataChunk chunk;
    chunk.offset.set(offset);
    return only_chunk(cookie, Chunk::offset_data, chunk, length);
}

ReplyHeader hole_reply(std::uint64_t cookie, std::uint64_t offset, std::uint32_t length)
{
    HoleChunk chunk;
    chunk.offset.set(offset);
    chunk.length.set(length);
    return only_chunk(cookie, Chunk::offset_hole, chunk);
}

ReplyHeader status_reply(std::uint64_t cookie, std::uint32_t length, std::uint32_t flags)
{
    StatusChunk chunk;
    chunk.context.set(allocation_context_id);
    chunk.length.set(length);
    chunk.flags.set(flags);
    return only_chunk(cookie, Chunk::block_status, chunk);
}

ReplyHeader error_reply(std::uint64_t cookie, std::uint32_t error)
{
    ErrorChunk chunk;
    chunk.error.set(error);
    chunk.text_bytes.set(0);
    return only_chunk(cookie, Chunk::error, chunk);
}

}  // namespace station
