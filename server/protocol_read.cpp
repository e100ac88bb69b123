// SPDX-License-Identifier: MIT
// Reads of a disk and of its image area: data in fragments, zeros for holes, the cache negotiation.
#include "server/protocol_parts.h"

namespace server {

void Protocol::Parts::read_disk(const Peer& from, Disk& disk, const WireHeader& request)
{
    const bool is_query = request.Sub_Code == formats::sub_status_query;
    ++(is_query ? disk.counters.status_queries : disk.counters.read_requests);
    if (request.Byte_Offset.get() == 0 && request.Length.get() == formats::sector_bytes)
        negotiate(from, disk, request);
    else
        read(from, disk, StoreFailure::Operation::read, request, disk.counters.read_bytes);
}

// A workstation that asks for an image that is not there goes on asking.
void Protocol::Parts::read_image(const Peer& from, Disk& disk, const WireHeader& request)
{
    const bool is_query = request.Sub_Code == formats::sub_status_query;
    ++(is_query ? disk.counters.status_queries : disk.counters.sync_reads);
    if (disk.image)
        return read(from, disk, StoreFailure::Operation::read_image, request, disk.counters.sync_bytes);
    ++dropped.no_image;
    note_unserved(from, disk, request);
}

void Protocol::Parts::read(const Peer& from, Disk& disk, StoreFailure::Operation operation,
                           const WireHeader& request, std::uint64_t& byte_count)
{
    BlockStore& store = operation == StoreFailure::Operation::read ? *disk.store : *disk.image;
    if (!range_valid(request, store)) {
        ++dropped.bad_offset;
        return;
    }
    const unsigned length = request.Length.get();
    if (store.hole(store_offset(request), length)) {
        ++disk.counters.zero_answers;
        byte_count += length;
        return send_zeros(from, request);
    }
    const auto data = sink.data_buffer().first(length);
    if (!store.read(store_offset(request), data)) {
        failed(disk, operation, &from);
        return note_unserved(from, disk, request);
    }
    byte_count += send_data(from, request, data);
}

void Protocol::Parts::negotiate(const Peer& from, Disk& disk, const WireHeader& request)
{
    ++disk.counters.negotiations;
    const auto data = sink.data_buffer().first(sizeof(formats::NegotiationReply));
    formats::NegotiationReply reply{};
    reply.Cache_Word.set(disk.options.cache_mb);
    constexpr char with_cache[] = "RAM cache", without_cache[] = "no RAM cache";
    if (disk.options.cache_mb != 0)
        std::memcpy(reply.Text, with_cache, sizeof with_cache);
    else
        std::memcpy(reply.Text, without_cache, sizeof without_cache);
    std::memcpy(data.data(), &reply, sizeof reply);
    disk.counters.read_bytes += send_data(from, request, data);
}

// A zero answer fills the whole packet at the workstation, but leaves the bit of its own number
// outstanding; any second one with another number clears that too. So two are sent, in whatever
// order they arrive, and whatever was outstanding before. Should the hole be written to while the
// read is under way, data fragments of a later answer may join the zeros: every byte is then either
// as before or as after that write, just as when data fragments of two answers join.
void Protocol::Parts::send_zeros(const Peer& to, const WireHeader& request)
{
    WireHeader answer = answer_to(request, formats::kind_read_data);
    answer.Frag_Off.set(0);
    answer.Frag_Size.set(0);
    answer.Zero = 0;
    answer.Frag_Cnt.set(0);
    for (std::uint8_t number = 1; number <= 2; ++number) {
        answer.Frag_Num = number;
        sink.send(to, bytes_of(answer, formats::header_bytes), {});
    }
}

// Sends the fragments that the workstation does not have by the mask in its request. Returns their bytes.
std::uint64_t Protocol::Parts::send_data(const Peer& to, const WireHeader& request,
                                         std::span<const std::uint8_t> data)
{
    const auto length = static_cast<unsigned>(data.size());
    const unsigned count = formats::fragment_count(length);
    // A workstation that asks for data lacks something. When by its mask that is none of these fragments, the
    // mask tells of the answers for a hole that was filled meanwhile.
    const unsigned all = (1u << count) - 1;
    unsigned has = request.Recv_Mask.get();
    if (request.Sub_Code == formats::sub_request && (has & all) == all)
        has = 0;
    WireHeader answer = answer_to(request, formats::kind_read_data);
    answer.Zero = 0;
    answer.Frag_Cnt.set(static_cast<std::uint16_t>(count));
    std::uint64_t sent_bytes = 0;
    for (unsigned i = 0; i < count; ++i) {
        if ((has >> i & 1) != 0)
            continue;
        const unsigned offset = i * formats::fragment_bytes_max;
        const unsigned size = std::min(length - offset, formats::fragment_bytes_max);
        answer.Frag_Off.set(static_cast<std::uint16_t>(offset));
        answer.Frag_Size.set(static_cast<std::uint16_t>(size));
        answer.Frag_Num = static_cast<std::uint8_t>(i + 1);
        sink.send(to, bytes_of(answer, formats::header_bytes), data.subspan(offset, size));
        sent_bytes += size;
    }
    return sent_bytes;
}

}  // namespace server
