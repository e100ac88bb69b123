// SPDX-License-Identifier: MIT
// A workstation's side of one packet, written from the protocol alone, for tests of the server: the
// requests it sends, and what answers do to its buffer and its set of outstanding fragments.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "server/protocol.h"

namespace server_test {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t disk_id[4] = {0x51, 0x52, 0x00, 0x01};
constexpr std::uint8_t other_disk_id[4] = {0x51, 0x52, 0x00, 0x02};

inline server::Peer peer(std::uint8_t host, std::uint16_t port)
{
    server::Peer peer{{10, 0, 0, host}, {}, {}, {}};
    peer.Port.set(port);
    return peer;
}

class RecordingSink : public server::PacketSink {
public:
    struct Sent {
        server::Peer to;
        Bytes packet;
    };
    void send(const server::Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override
    {
        Bytes packet(header.begin(), header.end());
        packet.insert(packet.end(), data.begin(), data.end());
        sent.push_back({to, packet});
    }
    std::vector<Bytes> take()
    {
        std::vector<Bytes> packets;
        for (Sent& one : sent)
            packets.push_back(std::move(one.packet));
        sent.clear();
        return packets;
    }
    std::vector<Sent> sent;
};

// A store that knows its holes: 16 KB units never written to. Reports accesses outside itself.
class SparseStore : public server::MemoryStore {
public:
    explicit SparseStore(std::uint64_t size_bytes)
        : MemoryStore(size_bytes), written_(static_cast<std::size_t>((size_bytes + unit - 1) / unit))
    {
    }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        return check(offset, out.size()) && works() && MemoryStore::read(offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        if (!check(offset, data.size()) || !works())
            return false;
        ++writes;
        for (std::uint64_t at = offset / unit; at <= (offset + data.size() - 1) / unit; ++at)
            written_[static_cast<std::size_t>(at)] = true;
        return MemoryStore::write(offset, data);
    }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override
    {
        if (!check(offset, bytes) || !holes_known)
            return false;
        bool any = false;
        for (std::uint64_t at = offset / unit; at <= (offset + bytes - 1) / unit; ++at)
            any |= written_[static_cast<std::size_t>(at)];
        return !any;
    }

    static constexpr std::uint64_t unit = 16384;
    bool holes_known = false;
    bool fails = false;
    unsigned writes = 0;
    unsigned accesses_outside = 0;

private:
    bool works() const
    {
        if (fails)
            errno = ENOSPC;
        return !fails;
    }
    bool check(std::uint64_t offset, std::uint64_t bytes)
    {
        const bool inside = bytes != 0 && offset <= size_bytes() && bytes <= size_bytes() - offset;
        accesses_outside += inside ? 0 : 1;
        return inside;
    }
    std::vector<bool> written_;
};

// One packet in flight.
struct Packet {
    Packet(std::uint8_t kind, std::uint64_t sector, unsigned length, std::uint16_t seq, unsigned worker = 0)
        : data(length)
    {
        header.Kind = kind;
        std::memcpy(header.Disk_Id, disk_id, 4);
        header.Tag.set(static_cast<std::uint16_t>(length >> 8));
        header.Seq.set(seq);
        header.Worker_Byte = static_cast<std::uint8_t>(worker);
        header.Byte_Offset.set((sector + 1) * 512);
        header.Length.set(static_cast<std::uint16_t>(length));
    }

    bool complete() const { return outstanding == 0; }
    unsigned fragments() const { return static_cast<unsigned>((data.size() + 1385) / 1386); }

    // 26 bytes: a read request, or a status query.
    Bytes request(bool query = false)
    {
        header.Recv_Mask.set(static_cast<std::uint16_t>(~outstanding));
        Bytes bytes(26);
        std::memcpy(bytes.data(), &header, 26);
        bytes[4] = query ? 1 : 0;
        return bytes;
    }
    // Write fragment `number`, from 1.
    Bytes fragment(unsigned number)
    {
        const unsigned offset = (number - 1) * 1386;
        const unsigned size = std::min<unsigned>(1386, static_cast<unsigned>(data.size()) - offset);
        header.Recv_Mask.set(static_cast<std::uint16_t>(~outstanding));
        header.Frag_Off.set(static_cast<std::uint16_t>(offset));
        header.Frag_Size.set(static_cast<std::uint16_t>(size));
        header.Frag_Num = static_cast<std::uint8_t>(number);
        header.Frag_Cnt.set(static_cast<std::uint16_t>(fragments()));
        Bytes bytes(34 + size);
        std::memcpy(bytes.data(), &header, 34);
        std::copy_n(data.begin() + offset, size, bytes.begin() + 34);
        return bytes;
    }
    // Everything that a send or resend of this packet puts on the wire.
    std::vector<Bytes> send()
    {
        if (header.Kind != formats::kind_write)
            return {request()};
        std::vector<Bytes> packets;
        for (unsigned number = 1; number <= fragments(); ++number)
            if ((outstanding >> (number - 1) & 1) != 0)
                packets.push_back(fragment(number));
        return packets;
    }

    enum class Effect { none, progress, resend_now };

    // What the workstation does with a packet from the server.
    Effect receive(const Bytes& packet)
    {
        const auto* own = reinterpret_cast<const std::uint8_t*>(&header);
        if (packet.size() < 26 || outstanding == 0 || std::memcmp(packet.data(), own, 4) != 0 ||
            std::memcmp(packet.data() + 6, own + 6, 10) != 0)
            return Effect::none;
        const bool writing = header.Kind == 0x5E;
        if (packet[5] == 0x5B) {
            const unsigned missing = ~static_cast<unsigned>(packet[16] << 8 | packet[17]) & 0xFFFF;
            if (writing && missing != 0)
                outstanding = missing;
            return missing != 0 ? Effect::resend_now : Effect::progress;
        }
        if (writing && packet[4] == 0 && packet[5] == 0x5F) {
            outstanding = 0;
            return Effect::progress;
        }
        if (writing || packet[4] != 0 || packet[5] != 0x5D || packet.size() < 34)
            return Effect::none;
        return receive_data(packet);
    }

    formats::WireHeader header{};
    Bytes data;
    std::uint32_t outstanding = 0xFFFFFFFF;

private:
    Effect receive_data(const Bytes& packet)
    {
        const std::size_t offset = static_cast<std::size_t>(packet[26] << 8 | packet[27]);
        const std::size_t size = static_cast<std::size_t>(packet[28] << 8 | packet[29]);
        const unsigned number = packet[31];
        const unsigned count = packet[33];
        if (offset + size > data.size())
            return Effect::none;
        if ((packet[32] | packet[33]) == 0)
            std::fill(data.begin(), data.end(), std::uint8_t{0});
        else if (packet.size() < 34 + size)
            return Effect::none;
        else
            std::copy_n(packet.begin() + 34, size, data.begin() + static_cast<std::ptrdiff_t>(offset));
        outstanding &= (1u << ((number - 1) & 31)) ^ ((1u << (count & 31)) - 1);
        return Effect::progress;
    }
};

// A server with one disk of 1 MB, an image area that is larger, and a way to talk to it.
struct ServerFixture {
    explicit ServerFixture(std::uint64_t size_bytes = 1 << 20) : store(size_bytes)
    {
        server::DiskOptions options;
        std::memcpy(options.disk_id, disk_id, 4);
        protocol.add_disk(options, store, &image);
    }
    std::vector<Bytes> exchange(const Bytes& packet, const server::Peer& from)
    {
        protocol.receive(from, packet);
        return sink.take();
    }
    std::vector<Bytes> exchange(const Bytes& packet) { return exchange(packet, workstation); }
    const server::DiskCounters& counters() const { return protocol.counters(0); }
    Bytes stored(std::uint64_t sector, std::size_t bytes) { return stored(store, sector, bytes); }
    static Bytes stored(SparseStore& store, std::uint64_t sector, std::size_t bytes)
    {
        const auto begin = store.bytes().begin() + static_cast<std::ptrdiff_t>(sector * 512);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(bytes));
    }

    RecordingSink sink;
    SparseStore store, image{(1 << 20) + (64 << 10)};
    server::Protocol protocol{sink};
    server::Peer workstation = peer(7, 4001);
};

// Content that differs in every byte position, sector and seed.
inline void fill(std::span<std::uint8_t> data, std::uint64_t seed)
{
    std::uint64_t state = seed * 0x9E3779B97F4A7C15u + 1;
    for (std::uint8_t& byte : data) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        byte = static_cast<std::uint8_t>(state >> 56);
    }
}

inline Packet make_write(std::uint64_t sector, unsigned length, std::uint16_t seq, std::uint64_t content)
{
    Packet packet(formats::kind_write, sector, length, seq);
    fill(packet.data, content);
    return packet;
}

}  // namespace server_test
