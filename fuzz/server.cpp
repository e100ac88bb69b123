// SPDX-License-Identifier: MIT
// Packets from anybody against the block server's protocol.
//
// Input: packets, each a control byte, a length of 2 bytes, the bytes. The control byte says whose disk id
// the packet gets and whether time passes before it.
#include "fuzz/input.h"
#include "server/protocol.h"

using namespace fuzz;
using formats::WireHeader;

namespace {

constexpr std::uint64_t disk_bytes = 96 * 512;

// Says when it is asked for what it does not have; fails on demand.
class CheckedStore : public server::MemoryStore {
public:
    CheckedStore() : MemoryStore(disk_bytes)
    {
        for (std::size_t i = 0; i < bytes().size(); ++i)
            bytes()[i] = static_cast<std::uint8_t>(i / 512 + i);
    }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        check(offset, out.size());
        return !fails && MemoryStore::read(offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        check(offset, data.size());
        ++writes;
        return !fails && MemoryStore::write(offset, data);
    }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override
    {
        check(offset, bytes);
        return false;
    }
    bool fails = false;
    unsigned writes = 0;

private:
    static void check(std::uint64_t offset, std::uint64_t bytes)
    {
        require(offset % 512 == 0 && bytes % 512 == 0, "stores are used by whole sectors");
        require(offset <= disk_bytes && bytes <= disk_bytes - offset, "a store is not used past its end");
    }
};

class Sink : public server::PacketSink {
public:
    void send(const server::Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override
    {
        ++packets;
        require(notices || to.Ip[3] == peer.Ip[3], "answers go where the packet came from");
        require(header.size() >= formats::request_bytes && header.size() + data.size() <= 1500 - 28,
                "an answer fits a frame");
        const auto* answer = reinterpret_cast<const WireHeader*>(header.data());
        if (answer->Sub_Code != formats::sub_request || answer->Kind != formats::kind_read_data)
            return;
        require(header.size() == formats::header_bytes, "read data has a whole header");
        const unsigned size = answer->Frag_Size.get();
        const unsigned offset = answer->Frag_Off.get();
        require(data.size() == (answer->Frag_Cnt.get() ? size : 0), "a fragment has the bytes that it says");
        require(offset + size <= answer->Length.get(), "a fragment lies inside its packet");
    }
    server::Peer peer{{10, 0, 0, 1}, {}, {}, {}};
    bool notices = false;  // the server speaks by itself
    std::uint64_t packets = 0;
};

std::uint64_t sum(const server::DroppedCounters& dropped)
{
    const auto* first = reinterpret_cast<const std::uint64_t*>(&dropped);
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < sizeof dropped / sizeof *first; ++i)
        total += first[i];
    return total;
}

constexpr server::DiskOptions disks[] = {{.disk_id = {0x51, 0x52, 0x00, 1}, .cache_mb = 7},
                                         {.disk_id = {0x51, 0x52, 0x10, 2}, .readonly = true}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Sink sink;
    CheckedStore store, fixed, image;
    server::Protocol protocol(sink);
    protocol.add_disk(disks[0], store, &image);
    protocol.add_disk(disks[1], fixed);
    const Bytes fixed_before = fixed.bytes(), image_before = image.bytes();
    std::uint64_t now_ms = 0;
    while (!input.empty()) {
        const unsigned control = input.u8();
        const auto bytes = input.piece(input.u16() % 2048);
        Bytes packet(bytes.begin(), bytes.end());
        if (control & 2 && packet.size() >= 4)
            std::memcpy(packet.data(), disks[control & 1].disk_id, 4);
        sink.peer.Ip[3] = control & 4 ? 2 : 1;
        store.fails = (control & 0x18) == 0x18;
        now_ms += (control >> 5) * 700;
        protocol.set_time_ms(now_ms);

        const std::uint64_t dropped = sum(protocol.dropped()), sent = sink.packets;
        const unsigned writes = store.writes;
        protocol.receive(sink.peer, packet);
        require(sum(protocol.dropped()) == dropped || (sink.packets == sent && store.writes == writes),
                "a dropped packet has no effect");
        if (control >> 5 == 7) {
            sink.notices = true;
            protocol.send_retry_limit(control & 1);
            protocol.send_poll(sink.peer, sink.peer);
            sink.notices = false;
        }
    }
    require(fixed.bytes() == fixed_before && image.bytes() == image_before,
            "a read-only disk and an image stay as they are");
    return 0;
}
