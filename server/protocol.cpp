// SPDX-License-Identifier: MIT
// Packets checked and dispatched; shutdown, status poll and retry limit.
#include "server/protocol.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "formats/boot_request.h"
#include "server/protocol_parts.h"

namespace server {

namespace {

bool same_peer(const Peer& a, const Peer& b)
{
    return std::memcmp(a.Ip, b.Ip, sizeof a.Ip) == 0 && a.Port.get() == b.Port.get();
}

bool length_valid(unsigned length)
{
    return length != 0 && length <= formats::packet_bytes_max && length % formats::sector_bytes == 0;
}

bool fragment_valid(const WireHeader& header, std::size_t data_bytes)
{
    const unsigned length = header.Length.get();
    const unsigned number = header.Frag_Num;
    if (header.Frag_Cnt.get() != formats::fragment_count(length) || number == 0 ||
        number > header.Frag_Cnt.get())
        return false;
    const unsigned offset = (number - 1) * formats::fragment_bytes_max;
    const unsigned size = std::min(length - offset, formats::fragment_bytes_max);
    return header.Frag_Off.get() == offset && header.Frag_Size.get() == size && data_bytes == size;
}

bool begins_with(std::span<const std::uint8_t> packet, const std::uint8_t (&mark)[2])
{
    return packet[0] == mark[0] && packet[1] == mark[1];
}

}  // namespace

bool range_valid(const WireHeader& header, const BlockStore& store)
{
    const std::uint64_t offset = header.Byte_Offset.get();
    const std::uint64_t length = header.Length.get();
    return offset >= formats::sector_bytes && offset % formats::sector_bytes == 0 &&
           offset - formats::sector_bytes <= store.size_bytes() &&
           length <= store.size_bytes() - (offset - formats::sector_bytes);
}

Disk* Protocol::Parts::find_disk(const std::uint8_t (&id)[4])
{
    for (const auto& disk : disks)
        if (std::memcmp(disk->options.disk_id, id, sizeof id) == 0)
            return disk.get();
    return nullptr;
}

// `header` is complete for a packet with data; of a 26-byte packet the rest is zero.
void Protocol::Parts::dispatch(const Peer& from, Disk& disk, const WireHeader& header,
                               std::span<const std::uint8_t> data)
{
    const bool is_query = header.Sub_Code == formats::sub_status_query;
    if (!is_query && header.Sub_Code != formats::sub_request) {
        ++dropped.unknown_kind;
        return;
    }
    switch (header.Kind) {
    case formats::kind_read:
        return read_disk(from, disk, header);
    case formats::kind_sync_read:
        return read_image(from, disk, header);
    case formats::kind_write:
        if (!range_valid(header, *disk.store)) {
            ++dropped.bad_offset;
        } else if (disk.options.readonly) {
            ++dropped.readonly;
            note_unserved(from, disk, header);
        } else if (is_query) {
            ++disk.counters.status_queries;
            write_status(from, disk, header);
        } else if (!fragment_valid(header, data.size())) {
            ++dropped.bad_fragment;
        } else {
            ++disk.counters.write_fragments;
            write_fragment(from, disk, header, data);
        }
        return;
    default:
        ++dropped.unknown_kind;
    }
}

// What a workstation wrote before it went down is on the medium before the next one starts.
void Protocol::Parts::shutdown(const Peer& from, Disk& disk)
{
    ++disk.counters.shutdowns;
    if (!flusher) {
        if (!flush(disk))
            failed(disk, StoreFailure::Operation::flush, &from);
    } else if (disk.unflushed) {
        ++disk.counters.flushes;
        disk.unflushed = false;
        flusher(disk.index, from);
    }
}

// The caller counts and tells the failure.
bool Protocol::Parts::flush(Disk& disk)
{
    if (!disk.unflushed)
        return true;
    ++disk.counters.flushes;
    disk.unflushed = !disk.store->flush();
    return !disk.unflushed;
}

// With errno as the store left it.
void Protocol::Parts::failed(Disk& disk, StoreFailure::Operation operation, const Peer* from)
{
    const int error = errno;
    ++disk.counters.store_errors;
    if (tell_failure)
        tell_failure({disk.index, operation, error, from ? std::optional(*from) : std::nullopt});
}

// Null: nothing was heard of it lately.
Unserved* Protocol::Parts::find_unserved(const Peer& from, Disk& disk, const WireHeader& header)
{
    const auto known = std::span(disk.unserved).first(disk.unserved_count);
    const auto is_it = [&](const Unserved& other) {
        return same_peer(other.from, from) && now_ms - other.heard_ms <= history_ms &&
               std::memcmp(&other.header.Tag, &header.Tag, formats::match_bytes) == 0;
    };
    const auto found = std::ranges::find_if(known, is_it);
    return found == known.end() ? nullptr : &*found;
}

void Protocol::Parts::note_unserved(const Peer& from, Disk& disk, const WireHeader& header)
{
    if (Unserved* const known = find_unserved(from, disk, header)) {
        known->heard_ms = now_ms;
        return;
    }
    disk.unserved[disk.unserved_next] = {from, header, now_ms};
    disk.unserved_next = (disk.unserved_next + 1) % disk.unserved.size();
    disk.unserved_count = std::min(disk.unserved_count + 1, disk.unserved.size());
}

void Protocol::Parts::limit_retries(const Peer& to, const WireHeader& request)
{
    WireHeader notice = answer_to(request, formats::kind_retry_limit);
    notice.Sub_Code = formats::sub_retry_limit;
    sink.send(to, bytes_of(notice, formats::request_bytes), {});
}

// Only the answer to the last poll is taken.
void Protocol::Parts::take_poll_reply(std::span<const std::uint8_t> packet)
{
    if (packet.size() != sizeof poll_reply) {
        ++dropped.bad_length;
        return;
    }
    formats::PollReply reply;
    std::memcpy(&reply, packet.data(), sizeof reply);
    const std::uint8_t cookie[2] = {static_cast<std::uint8_t>(poll_cookie),
                                    static_cast<std::uint8_t>(poll_cookie >> 8)};
    if (!poll_outstanding || std::memcmp(reply.Cookie, cookie, sizeof cookie) != 0) {
        ++dropped.unknown_kind;
        return;
    }
    poll_outstanding = false;
    poll_answered = true;
    poll_reply = reply;
}

Protocol::Protocol(PacketSink& sink) : parts_(new Parts(sink)) {}

Protocol::~Protocol() = default;

unsigned Protocol::add_disk(const DiskOptions& options, BlockStore& store, BlockStore* image)
{
    const std::span<const std::uint8_t> id = options.disk_id;
    if (std::ranges::all_of(id, [](std::uint8_t byte) { return byte == 0; }))
        throw std::invalid_argument("a disk id of zero means that the disk has no server");
    if (begins_with(id, formats::poll_mark) || begins_with(id, formats::poll_reply_mark))
        throw std::invalid_argument("a disk id must not begin like a status poll (0138, 0238)");
    if (std::memcmp(options.disk_id, formats::boot_mark, sizeof options.disk_id) == 0)
        throw std::invalid_argument("a disk id must not be the mark of a boot request (51524e42)");
    if (parts_->find_disk(options.disk_id))
        throw std::invalid_argument("two disks have the same id");
    parts_->disks.push_back(std::make_unique<Disk>());
    parts_->disks.back()->index = static_cast<unsigned>(parts_->disks.size() - 1);
    parts_->disks.back()->options = options;
    parts_->disks.back()->store = &store;
    parts_->disks.back()->image = image;
    return static_cast<unsigned>(parts_->disks.size() - 1);
}

void Protocol::set_failure_listener(FailureListener listener)
{
    parts_->tell_failure = std::move(listener);
}

void Protocol::set_flusher(Flusher flusher)
{
    parts_->flusher = std::move(flusher);
}

void Protocol::flush_ended(unsigned disk_index, const Peer& workstation, int error)
{
    if (error == 0)
        return;
    Disk& disk = *parts_->disks.at(disk_index);
    disk.unflushed = true;
    errno = error;
    parts_->failed(disk, StoreFailure::Operation::flush, &workstation);
}

void Protocol::set_time_ms(std::uint64_t now_ms)
{
    parts_->now_ms = now_ms;
}

void Protocol::receive(const Peer& from, std::span<const std::uint8_t> packet)
{
    DroppedCounters& dropped = parts_->dropped;
    if (packet.size() < formats::request_bytes) {
        ++dropped.short_packet;
        return;
    }
    if (begins_with(packet, formats::poll_reply_mark))
        return parts_->take_poll_reply(packet);

    WireHeader header{};
    std::memcpy(&header, packet.data(), std::min<std::size_t>(packet.size(), sizeof header));
    Disk* disk = parts_->find_disk(header.Disk_Id);
    if (!disk) {
        ++dropped.unknown_disk;
        return;
    }
    const bool is_write_data = header.Kind == formats::kind_write && header.Sub_Code == formats::sub_request;
    if (is_write_data && packet.size() < formats::header_bytes) {
        ++dropped.short_packet;
        return;
    }
    if (!is_write_data && packet.size() != formats::request_bytes) {
        ++dropped.bad_length;
        return;
    }
    if (header.Kind == formats::kind_shutdown && header.Sub_Code == formats::sub_request)
        return parts_->shutdown(from, *disk);
    if (!length_valid(header.Length.get())) {
        ++dropped.bad_length;
        return;
    }
    parts_->dispatch(from, *disk, header,
                     is_write_data ? packet.subspan(formats::header_bytes) : packet.first(0));
}

void Protocol::send_poll(const Peer& workstation, const Peer& self)
{
    ++parts_->poll_cookie;
    parts_->poll_outstanding = true;
    formats::PollRequest poll{};
    std::memcpy(poll.Mark, formats::poll_mark, sizeof poll.Mark);
    poll.Cookie_6[0] = static_cast<std::uint8_t>(parts_->poll_cookie);
    poll.Cookie_6[1] = static_cast<std::uint8_t>(parts_->poll_cookie >> 8);
    poll.Poller = self;
    // A workstation takes no packet shorter than a request.
    std::array<std::uint8_t, formats::request_bytes> packet{};
    std::memcpy(packet.data(), &poll, sizeof poll);
    parts_->sink.send(workstation, packet, {});
}

void Protocol::send_retry_limit(unsigned disk_index)
{
    Disk& disk = *parts_->disks.at(disk_index);
    for (const auto& assembly : disk.assemblies.under_way())
        parts_->limit_retries(assembly->from, assembly->header);
    for (const Unserved& request : std::span(disk.unserved).first(disk.unserved_count))
        if (parts_->now_ms - request.heard_ms <= history_ms)
            parts_->limit_retries(request.from, request.header);
}

bool Protocol::flush()
{
    bool all_flushed = true;
    for (const auto& disk : parts_->disks) {
        if (parts_->flush(*disk))
            continue;
        parts_->failed(*disk, StoreFailure::Operation::flush, nullptr);
        all_flushed = false;
    }
    return all_flushed;
}

const DiskCounters& Protocol::counters(unsigned disk) const
{
    return parts_->disks.at(disk)->counters;
}

const DroppedCounters& Protocol::dropped() const
{
    return parts_->dropped;
}

std::span<const std::uint8_t> Protocol::last_poll_reply() const
{
    if (!parts_->poll_answered)
        return {};
    return {reinterpret_cast<const std::uint8_t*>(&parts_->poll_reply), sizeof parts_->poll_reply};
}

}  // namespace server
