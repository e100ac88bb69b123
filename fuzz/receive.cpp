// SPDX-License-Identifier: MIT
// Packets from the network against workers in every state, through the receive thread.
//
// Input: a byte with the number of workers, 8 bytes for the state of each, then packets: a control byte, a
// length of 2 bytes, the bytes. Most packets get the header of a worker, so that they match what it has in
// flight.
#include <sanitizer/asan_interface.h>

#include <deque>
#include <memory>

#include "driver/engine/status_poll.h"
#include "driver/net/receive.h"
#include "driver/request/queues.h"
#include "driver/state/boot_param.h"
#include "fuzz/kernel.h"

using namespace fuzz;
using formats::WireHeader;

namespace {

constexpr std::uint8_t kinds[] = {formats::kind_read, formats::kind_write, formats::kind_sync_read,
                                  formats::kind_read};
constexpr std::uint8_t untouched = 0xA5;
constexpr unsigned guard_bytes = 4096;  // in front of the worker's piece

// A worker as its packet in flight left it, and what the last packets may have changed of it.
struct Worker {
    RW_Entry entry;
    WireHeader header;
    Bytes piece;
    std::uint32_t outstanding;

    Worker(unsigned index, Input& input)
    {
        std::memset(&entry, 0, offsetof(RW_Entry, Bounce));
        std::memset(entry.Bounce, untouched, sizeof entry.Bounce);
        KeInitializeSpinLock(&entry.Ack_Lock);
        KeInitializeEvent(&entry.Ack_Event, SynchronizationEvent, FALSE);
        const unsigned state = input.u8();
        const unsigned length = input.u16() % (formats::packet_bytes_max + 1);
        entry.Hdr.Kind = kinds[state & 3];
        entry.Hdr.Sub_Code = state & 4 ? formats::sub_status_query : formats::sub_request;
        entry.Hdr.Worker_Byte = static_cast<std::uint8_t>((state & 0xF0) | index);
        entry.Hdr.Length.set(static_cast<std::uint16_t>(length));
        entry.Frag_Mask = state & 8 ? 0 : ~ULONG{input.u16()};
        entry.Retry_Left = static_cast<std::int8_t>(input.u8());
        entry.Hdr.Disk_Id[0] = 0x51;
        entry.Hdr.Tag.set(input.u16());
        entry.pData = entry.Bounce + guard_bytes;
        remember();
    }

    void remember()
    {
        header = entry.Hdr;
        piece.assign(entry.pData, entry.pData + entry.Hdr.Length.get());
        outstanding = entry.Frag_Mask;
    }
    void check(const WireHeader* packet, std::span<const std::uint8_t> data) const
    {
        const unsigned length = header.Length.get();
        static const Bytes guard(sizeof entry.Bounce, untouched);
        const unsigned end = guard_bytes + length;
        require(std::memcmp(entry.Bounce, guard.data(), guard_bytes) == 0 &&
                    std::memcmp(entry.Bounce + end, guard.data(), sizeof entry.Bounce - end) == 0,
                "what lies outside a worker's piece is not written");
        require(std::memcmp(&header, &entry.Hdr, sizeof header) == 0, "a worker's header is its own");
        if (std::equal(piece.begin(), piece.end(), entry.pData) && outstanding == entry.Frag_Mask)
            return;
        require(packet && outstanding != 0 && std::memcmp(packet->Disk_Id, header.Disk_Id, 4) == 0 &&
                    std::memcmp(&packet->Tag, &header.Tag, formats::match_bytes) == 0,
                "only answers to what is in flight change a worker");
        const bool writes = header.Kind == formats::kind_write;
        require(writes || (outstanding | entry.Frag_Mask) == outstanding,
                "nothing that has come is missing again");
        if (std::equal(piece.begin(), piece.end(), entry.pData))
            return;
        require(!writes && packet->Kind == formats::kind_read_data, "only read data changes a piece");
        for (unsigned i = 0; i < length; ++i) {
            const unsigned from = packet->Frag_Off.get();
            const bool zeros = packet->Frag_Cnt.get() == 0;
            const bool inside = zeros || (i >= from && i - from < packet->Frag_Size.get());
            require(inside ? entry.pData[i] == (zeros ? 0 : data[i - from]) : entry.pData[i] == piece[i],
                    "a fragment's data are at its place, and nowhere else");
        }
    }
};

struct Wire {
    std::vector<std::unique_ptr<Worker>> workers;
    std::deque<Bytes> packets;
    Bytes current;  // its buffer is as large as the transport's least
    std::size_t current_bytes = 0;
    bool handed_out = false;
};
Wire* wire;

void check_workers()
{
    const bool has_header = wire->current_bytes >= formats::request_bytes;
    const auto* packet = has_header ? reinterpret_cast<const WireHeader*>(wire->current.data()) : nullptr;
    std::span<const std::uint8_t> data(wire->current.data(), wire->current_bytes);
    data = data.subspan(std::min<std::size_t>(data.size(), formats::header_bytes));
    for (auto& worker : wire->workers) {
        worker->check(packet, data);
        worker->remember();
    }
}

VOID NTAPI release(PVOID header)
{
    require(wire->handed_out && header == wire->current.data(), "a packet is released once");
    wire->handed_out = false;
    __asan_unpoison_memory_region(wire->current.data(), wire->current.size());
}

ULONG NTAPI receive(PVOID* header)
{
    require(!wire->handed_out, "every packet is released");
    check_workers();
    if (wire->packets.empty()) {
        PsTerminateSystemThread(STATUS_SUCCESS);
    }
    wire->current = std::move(wire->packets.front());
    wire->packets.pop_front();
    wire->current_bytes = wire->current.size();
    wire->current.resize(std::max<std::size_t>(wire->current_bytes, formats::poll_buffer_bytes));
    const bool poll = std::memcmp(wire->current.data(), formats::poll_mark, 2) == 0;
    if (!poll)
        __asan_poison_memory_region(wire->current.data() + wire->current_bytes,
                                    wire->current.size() - wire->current_bytes);
    wire->handed_out = true;
    *header = wire->current.data();
    return static_cast<ULONG>(wire->current_bytes);
}

VOID NTAPI send(PVOID server, PVOID header, ULONG header_bytes, PVOID, ULONG data_bytes)
{
    require(header == wire->current.data() && header_bytes == sizeof(formats::PollReply) && data_bytes == 0,
            "the receive thread sends nothing but answers to polls");
    volatile auto last = static_cast<formats::ServerRecord*>(server)->Zero[1];
    static_cast<void>(last);
}

Bytes make_packet(Input& input)
{
    const unsigned control = input.u8();
    const auto bytes = input.piece(input.u16() % 2048);
    Bytes packet(bytes.begin(), bytes.end());
    const unsigned index = control & 7;
    if (control & 8 && packet.size() >= 16 && index < wire->workers.size()) {
        const auto* own = reinterpret_cast<const std::uint8_t*>(&wire->workers[index]->entry.Hdr);
        std::copy(own, own + 4, packet.begin());
        std::copy(own + formats::match_offset, own + formats::match_offset + formats::match_bytes,
                  packet.begin() + formats::match_offset);
    }
    return packet;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    DriverPiece driver;
    Input input(data, size);
    Wire now;
    wire = &now;
    driver.run([&] {
        const unsigned count = input.u8() % (RW_Threads_Max + 1);
        for (unsigned index = 0; index < count; ++index)
            now.workers.push_back(std::make_unique<Worker>(index, input));
        for (unsigned index = 0; index < count; ++index)
            pRW_Tbl[index] = &now.workers[index]->entry;
        while (!input.empty())
            now.packets.push_back(make_packet(input));
        KeInitializeEvent(&Start_Event, NotificationEvent, TRUE);
        Ndis_Handover.QRN_Send = send;
        Ndis_Handover.QRN_Recv = receive;
        Ndis_Handover.QRN_Release = release;
        HANDLE thread;
        require(PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, QRN_Recv_Thread,
                                     reinterpret_cast<PVOID>(Answer_Poll)) == STATUS_SUCCESS,
                "the thread starts");
        PVOID object;
        ObReferenceObjectByHandle(thread, 0, *PsThreadType, KernelMode, &object, nullptr);
        ZwClose(thread);
        KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
        ObfDereferenceObject(object);
    });
    require(now.packets.empty(), "every packet is taken");
    return 0;
}
