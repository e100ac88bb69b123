// SPDX-License-Identifier: MIT
// The NDIS library for one protocol driver, and the cards below it, in virtual time. The routines stand under
// their real names in ndis_routines.cpp; what a driver does against their rules is a violation.
//
// What a card may do at once or later - completing an open, a request, a send, a transfer - is drawn from a
// seed each time; and whether a frame is indicated whole or by its beginning.
//
// Calls of tests are made by kernel threads at PASSIVE_LEVEL, but for arrive(), which timer callbacks make
// too.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <ndis5.h>

#include "machine/scheduler/scheduler.h"

namespace machine {

using CardAddress = std::array<std::uint8_t, 6>;
using FrameBytes = std::vector<std::uint8_t>;

struct CardCounters {
    std::uint64_t sent = 0, lost = 0, indicated_whole = 0, indicated_ahead = 0, transferred = 0, filtered = 0,
                  pended = 0, aborted = 0;
};

class NdisCard {
public:
    using Wire = std::function<void(std::span<const std::uint8_t> frame)>;

    NdisCard(CardAddress address, Wire wire) : address_(address), wire_(std::move(wire)) {}

    // A frame comes from the wire.
    void arrive(std::span<const std::uint8_t> frame);
    // The cable, told to the driver.
    void set_link(bool up);
    // What was handed down comes back unsent, and for a moment nothing is sent.
    void reset();

    bool bound() const { return open_ && !closing_; }
    const CardCounters& counters() const { return counters_; }
    std::size_t sends_out() const { return out_.size(); }

private:
    friend class Ndis;

    struct Sent {
        FrameBytes frame;
        NDIS_STATUS status;
    };
    struct Shown {  // a frame indicated by its beginning
        FrameBytes payload;
    };

    void send(PNDIS_PACKET packet);
    void complete_send(PNDIS_PACKET packet);
    void indicate_whole(std::span<const std::uint8_t> frame);
    void indicate_ahead(std::span<const std::uint8_t> frame);
    void end_batch_later();
    void finish_close();

    const CardAddress address_;
    const Wire wire_;
    CardCounters counters_;
    NDIS_HANDLE context_ = nullptr;  // the driver's
    bool open_ = false, opening_ = false, closing_ = false, link_up_ = true, resetting_ = false,
         batch_ends_ = false;
    ULONG filter_ = 0, lookahead_bytes_ = 128;
    std::map<PNDIS_PACKET, Sent> out_;
    Shown* shown_ = nullptr;
    unsigned transfers_out_ = 0;
    NDIS_REQUEST* request_ = nullptr;
};

class Ndis {
public:
    Ndis(Scheduler& scheduler, std::uint64_t seed);
    ~Ndis();
    Ndis(const Ndis&) = delete;
    Ndis& operator=(const Ndis&) = delete;
    static Ndis& current();

    // A card appears, and is offered to the driver, if there is one. It stays known when it is unplugged.
    NdisCard& plug(CardAddress address, NdisCard::Wire wire);
    void plug_again(NdisCard& card);
    // The driver must have let go of the card, with all that was under way, when this returns.
    void unplug(NdisCard& card);

    // Of the library's routines.
    NDIS_STATUS register_protocol(const NDIS_PROTOCOL_CHARACTERISTICS& characteristics);
    NDIS_STATUS open(const NDIS_STRING& name, NDIS_HANDLE context, NDIS_HANDLE& binding);
    NDIS_STATUS close(NDIS_HANDLE binding);
    NDIS_STATUS request(NDIS_HANDLE binding, NDIS_REQUEST& request);
    void send(NDIS_HANDLE binding, std::span<const PNDIS_PACKET> packets);
    NDIS_STATUS transfer(NDIS_HANDLE binding, NDIS_HANDLE shown, UINT offset, UINT bytes, PNDIS_PACKET packet,
                         UINT& transferred);

    NDIS_HANDLE make_pool(unsigned count, unsigned reserved_bytes);
    void free_pool(NDIS_HANDLE pool);
    PNDIS_PACKET take_packet(NDIS_HANDLE pool);
    void give_packet(PNDIS_PACKET packet);
    PNDIS_BUFFER take_buffer(NDIS_HANDLE pool, void* memory, unsigned bytes);

private:
    friend class NdisCard;

    struct Pool {
        unsigned count, reserved_bytes, taken = 0;
    };
    struct Packet {
        Pool* pool;
        std::unique_ptr<std::uint8_t[]> memory;
        bool with_card = false;
    };

    NdisCard& card_of(NDIS_HANDLE binding, const char* routine);
    Packet& packet_of(PNDIS_PACKET packet, const char* routine);
    void offer(NdisCard& card);
    bool drawn() { return random_() % 2 != 0; }
    // At DISPATCH_LEVEL, after a moment.
    void later(std::function<void()> action);
    const NDIS40_PROTOCOL_CHARACTERISTICS& driver() const { return protocol_->Ndis40Chars; }

    Scheduler& scheduler_;
    std::mt19937_64 random_;
    std::unique_ptr<NDIS_PROTOCOL_CHARACTERISTICS> protocol_;
    std::list<NdisCard> cards_;
    std::list<Pool> pools_;
    std::map<PNDIS_PACKET, Packet> packets_;
};

}  // namespace machine
