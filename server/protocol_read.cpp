// Reads: data in fragments, zeros for holes, the cache negotiation.
#include "server/protocol_parts.h"

namespace server {

void Protocol::Parts::read(const Peer& from, Disk& disk, const WireHeader& request)
{
    const unsigned length = request.Length.get();
    if (disk.store->hole(image_offset(request), length)) {
        ++disk.counters.zero_answers;
        disk.counters.read_bytes += length;
        return send_zeros(from, request);
    }
    const auto data = sink.data_buffer().first(length);
    if (!disk.store->read(image_offset(request), data)) {
        ++disk.counters.store_errors;
        return note_unserved(from, disk, request);
    }
    send_data(from, request, data, disk.counters);
}

void Protocol::Parts::negotiate(const Peer& from, Disk& disk, const WireHeader& request)
{
    ++disk.counters.negotiations;
    const auto data = sink.data_buffer().first(sizeof(formats::NegotiationReply));
    formats::NegotiationReply reply{};
    reply.Cache_Word.set(disk.options.cache_mb & 0xFFFF);
    constexpr char with_cache[] = "RAM cache", without_cache[] = "no RAM cache";
    if (disk.options.cache_mb != 0)
        std::memcpy(reply.Text, with_cache, sizeof with_cache);
    else
        std::memcpy(reply.Text, without_cache, sizeof without_cache);
    std::memcpy(data.data(), &reply, sizeof reply);
    send_data(from, request, data, disk.counters);
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

// Sends the fragments that the workstation does not have by the mask in its request.
void Protocol::Parts::send_data(const Peer& to, const WireHeader& request, std::span<const std::uint8_t> data,
                                DiskCounters& counters)
{
    const auto length = static_cast<unsigned>(data.size());
    const unsigned count = formats::fragment_count(length);
    const unsigned has = request.Recv_Mask.get();
    WireHeader answer = answer_to(request, formats::kind_read_data);
    answer.Zero = 0;
    answer.Frag_Cnt.set(static_cast<std::uint16_t>(count));
    for (unsigned i = 0; i < count; ++i) {
        if ((has >> i & 1) != 0)
            continue;
        const unsigned offset = i * formats::fragment_bytes_max;
        const unsigned size = std::min(length - offset, formats::fragment_bytes_max);
        answer.Frag_Off.set(static_cast<std::uint16_t>(offset));
        answer.Frag_Size.set(static_cast<std::uint16_t>(size));
        answer.Frag_Num = static_cast<std::uint8_t>(i + 1);
        sink.send(to, bytes_of(answer, formats::header_bytes), data.subspan(offset, size));
        counters.read_bytes += size;
    }
}

}  // namespace server
