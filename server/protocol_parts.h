// SPDX-License-Identifier: MIT
// Inside of the protocol: its disks, and the steps that its source files share.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "server/assembly_table.h"
#include "server/completed_writes.h"
#include "server/protocol.h"

namespace server {

using formats::WireHeader;

// A request that was heard but could not be served; its workstation goes on asking.
struct Unserved {
    Peer from;
    WireHeader header;
    std::uint64_t heard_ms;
};

// As many as there can be unfinished writes; a workstation has at most eight packets in flight.
constexpr std::size_t unserved_max = AssemblyTable::places;

// A write that could not be stored is not heard again for so long: shorter than any workstation waits
// before it sends one again of its own accord, longer than what a network holds of it is under way.
constexpr std::uint64_t failed_write_rest_ms = 100;

struct Disk {
    unsigned index;
    DiskOptions options;
    BlockStore* store;
    BlockStore* image;  // null: none
    DiskCounters counters;
    AssemblyTable assemblies;
    CompletedWrites completed;
    bool unflushed = false;
    std::uint64_t rest_until_ms = 0;  // after it no failed write rests
    std::array<Unserved, unserved_max> unserved;
    std::size_t unserved_count = 0;
    std::size_t unserved_next = 0;
};

// Place in the store of a checked request: engine sectors count from 1.
inline std::uint64_t store_offset(const WireHeader& header)
{
    return header.Byte_Offset.get() - formats::sector_bytes;
}

// The header of an answer to `request`: everything by which it matches, and its place on the disk.
inline WireHeader answer_to(const WireHeader& request, std::uint8_t kind)
{
    WireHeader answer = request;
    answer.Sub_Code = formats::sub_request;
    answer.Kind = kind;
    return answer;
}

// Whole sectors of the store, by their engine sector numbers.
bool range_valid(const WireHeader& header, const BlockStore& store);

inline std::span<const std::uint8_t> bytes_of(const WireHeader& header, unsigned byte_count)
{
    return {reinterpret_cast<const std::uint8_t*>(&header), byte_count};
}

struct Protocol::Parts {
    explicit Parts(PacketSink& packet_sink) : sink(packet_sink) {}

    PacketSink& sink;
    Protocol::FailureListener tell_failure;
    Protocol::Flusher flusher;
    std::uint64_t now_ms = 0;
    std::vector<std::unique_ptr<Disk>> disks;
    DroppedCounters dropped;
    std::uint16_t poll_cookie = 0;
    bool poll_outstanding = false;
    bool poll_answered = false;
    formats::PollReply poll_reply;

    Disk* find_disk(const std::uint8_t (&id)[4]);
    void dispatch(const Peer& from, Disk& disk, const WireHeader& header, std::span<const std::uint8_t> data);

    void read_disk(const Peer& from, Disk& disk, const WireHeader& request);
    void read_image(const Peer& from, Disk& disk, const WireHeader& request);
    void read(const Peer& from, Disk& disk, StoreFailure::Operation operation, const WireHeader& request,
              std::uint64_t& byte_count);
    void negotiate(const Peer& from, Disk& disk, const WireHeader& request);
    void send_zeros(const Peer& to, const WireHeader& request);
    std::uint64_t send_data(const Peer& to, const WireHeader& request, std::span<const std::uint8_t> data);

    void write_fragment(const Peer& from, Disk& disk, const WireHeader& header,
                        std::span<const std::uint8_t> data);
    bool rests(const Peer& from, Disk& disk, const WireHeader& header);
    void repeated_fragment(const Peer& from, Disk& disk, CompletedWrite& write, const WireHeader& header);
    void add_fragment(Assembly& assembly, const WireHeader& header, std::span<const std::uint8_t> data,
                      std::uint32_t content);
    void complete_write(const Peer& from, Disk& disk, const WireHeader& header, const WriteKey& key,
                        std::span<const std::uint8_t> data, const std::uint32_t (&content)[fragments_max]);
    void write_status(const Peer& from, Disk& disk, const WireHeader& query);
    void acknowledge(const Peer& to, Disk& disk, const WireHeader& request, unsigned arrived);
    void write_done(const Peer& to, const WireHeader& request);

    void shutdown(const Peer& from, Disk& disk);
    bool flush(Disk& disk);
    void failed(Disk& disk, StoreFailure::Operation operation, const Peer* from);
    Unserved* find_unserved(const Peer& from, Disk& disk, const WireHeader& header);
    void note_unserved(const Peer& from, Disk& disk, const WireHeader& header);
    void limit_retries(const Peer& to, const WireHeader& request);
    void take_poll_reply(std::span<const std::uint8_t> packet);
};

}  // namespace server
