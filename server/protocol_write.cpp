// SPDX-License-Identifier: MIT
// Writes: fragments in any order, acknowledgements, and each write applied exactly once.
#include <bit>

#include "server/protocol_parts.h"

namespace server {

namespace {

// True for the last fragment of those that the workstation sent together; its mask names the ones it
// left out. What is missing after it needs a report, so that the workstation need not wait to learn
// it. A resend after a report leaves out what has arrived, so late fragments of an earlier send set
// off no second one.
bool ends_a_send(const WireHeader& header)
{
    const unsigned sent = all_fragments(header.Frag_Cnt.get()) & ~unsigned{header.Recv_Mask.get()};
    return header.Frag_Num == std::bit_width(sent);
}

}  // namespace

void Protocol::Parts::write_fragment(const Peer& from, Disk& disk, const WireHeader& header,
                                     std::span<const std::uint8_t> data)
{
    const WriteKey key(from, header);
    const std::uint32_t content = content_hash(data);
    if (CompletedWrite* write = disk.completed.find(key, now_ms)) {
        if (write->content[header.Frag_Num - 1] == content)
            return repeated_fragment(from, disk, *write, header);
        disk.completed.forget(*write);
    }
    if (rests(from, disk, header))
        return;
    if (header.Frag_Cnt.get() == 1) {
        const std::uint32_t contents[fragments_max] = {content};
        return complete_write(from, disk, header, key, data, contents);
    }
    Assembly* assembly = disk.assemblies.find(key, now_ms);
    if (!assembly)
        assembly = &disk.assemblies.start(key, from, header, now_ms);
    add_fragment(*assembly, header, data, content);
    if (assembly->complete()) {
        complete_write(from, disk, header, key, {assembly->data, header.Length.get()}, assembly->content);
        disk.assemblies.release(*assembly);
    } else if (ends_a_send(header)) {
        acknowledge(from, disk, header, assembly->arrived);
    }
}

// The write failed just now, and this is a copy that the network held back. Taken for the beginning of
// another attempt it would be answered with what is missing, and the workstation would send that at once:
// as the store cannot end the write, every copy would bring forth the next one, and a network that
// doubles packets would fill with them.
bool Protocol::Parts::rests(const Peer& from, Disk& disk, const WireHeader& header)
{
    if (now_ms >= disk.rest_until_ms)
        return false;
    const Unserved* const failed = find_unserved(from, disk, header);
    return failed && now_ms - failed->heard_ms < failed_write_rest_ms;
}

// A fragment of a write that is already done. The write counts as sent once more when all of it has
// come again; until then the workstation is told what is missing, never that a write is done of
// which a part might differ.
void Protocol::Parts::repeated_fragment(const Peer& from, Disk& disk, CompletedWrite& write,
                                        const WireHeader& header)
{
    const unsigned count = header.Frag_Cnt.get();
    write.heard_ms = now_ms;
    write.repeated = static_cast<std::uint16_t>(write.repeated | 1u << (header.Frag_Num - 1));
    if (write.repeated == all_fragments(count)) {
        ++disk.counters.repeated_writes;
        write.repeated = 0;
        write_done(from, header);
    } else if (ends_a_send(header)) {
        acknowledge(from, disk, header, write.repeated);
    }
}

void Protocol::Parts::add_fragment(Assembly& assembly, const WireHeader& header,
                                   std::span<const std::uint8_t> data, std::uint32_t content)
{
    const unsigned index = header.Frag_Num - 1u;
    const unsigned bit = 1u << index;
    if ((assembly.arrived & bit) != 0) {
        if (assembly.content[index] == content)
            return;
        // Another write under the same key: what was gathered belongs to one that was given up.
        assembly.arrived = 0;
    }
    std::memcpy(assembly.data + header.Frag_Off.get(), data.data(), data.size());
    assembly.content[index] = content;
    assembly.arrived = static_cast<std::uint16_t>(assembly.arrived | bit);
}

void Protocol::Parts::complete_write(const Peer& from, Disk& disk, const WireHeader& header,
                                     const WriteKey& key, std::span<const std::uint8_t> data,
                                     const std::uint32_t (&content)[fragments_max])
{
    if (!disk.store->write(store_offset(header), data)) {
        failed(disk, StoreFailure::Operation::write, &from);
        disk.rest_until_ms = now_ms + failed_write_rest_ms;
        return note_unserved(from, disk, header);
    }
    disk.unflushed = true;
    ++disk.counters.writes_completed;
    disk.counters.written_bytes += data.size();
    disk.completed.add(key, content, now_ms);
    write_done(from, header);
}

// Silence about a write that came and could not be stored: told that nothing has come, its workstation would
// send it again at once, for ever. In silence it waits, counts a time-out, and gives up in its time.
void Protocol::Parts::write_status(const Peer& from, Disk& disk, const WireHeader& query)
{
    const WriteKey key(from, query);
    if (const Assembly* assembly = disk.assemblies.find(key, now_ms))
        return acknowledge(from, disk, query, assembly->arrived);
    CompletedWrite* write = disk.completed.find(key, now_ms);
    if (!write && find_unserved(from, disk, query))
        return;
    if (!write)
        return acknowledge(from, disk, query, 0);
    write->heard_ms = now_ms;
    if (write->repeated != 0)
        return acknowledge(from, disk, query, write->repeated);
    ++disk.counters.repeated_writes;
    write_done(from, query);
}

void Protocol::Parts::acknowledge(const Peer& to, Disk& disk, const WireHeader& request, unsigned arrived)
{
    const unsigned beyond_last = ~unsigned{all_fragments(formats::fragment_count(request.Length.get()))};
    WireHeader answer = answer_to(request, formats::kind_acknowledge);
    answer.Recv_Mask.set(static_cast<std::uint16_t>(arrived | beyond_last));
    ++disk.counters.acknowledgements;
    sink.send(to, bytes_of(answer, formats::request_bytes), {});
}

void Protocol::Parts::write_done(const Peer& to, const WireHeader& request)
{
    WireHeader answer = answer_to(request, formats::kind_write_done);
    answer.Recv_Mask.set(0xFFFF);
    sink.send(to, bytes_of(answer, formats::request_bytes), {});
}

}  // namespace server
