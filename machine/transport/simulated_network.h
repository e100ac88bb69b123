// SPDX-License-Identifier: MIT
// A network in virtual time: seeded delay, loss, duplication, reordering, corruption and partitions
// between one workstation and any number of servers. Runs on the simulated scheduler.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "machine/scheduler/scheduler.h"
#include "machine/transport/link.h"

namespace machine {

struct NetworkQuality {
    Ticks delay_min = 100 * ticks_per_us;
    Ticks delay_max = 100 * ticks_per_us;  // larger than delay_min: packets overtake each other
    double loss = 0;                       // probabilities per packet, 0 to 1
    double duplication = 0;
    double reordering = 0;  // delayed once more by up to reorder_delay
    Ticks reorder_delay = 2 * ticks_per_ms;
    double corruption = 0;  // a bit flips; the datagram checksum then drops the packet
};

enum class Direction { to_server, to_workstation };

struct NetworkCounters {
    std::uint64_t sent = 0, delivered = 0, lost = 0, duplicated = 0, reordered = 0, corrupted = 0,
                  partitioned = 0, unknown_address = 0;
};

class SimulatedNetwork : public Link {
public:
    // A server's receiving end: called at DISPATCH_LEVEL in a timer callback, must not wait.
    using Endpoint = std::function<void(const formats::ServerRecord& from, std::span<const std::uint8_t>)>;

    // Sees every packet when it is sent, before any fault; may say that the packet is lost.
    enum class Verdict { pass, drop };
    using Observer = std::function<Verdict(Direction, const formats::ServerRecord& server,
                                           std::span<const std::uint8_t> packet)>;

    // Draws from its own random stream, so that the same seed gives the same network under any
    // schedule of equal packets.
    SimulatedNetwork(Scheduler& scheduler, std::uint64_t seed);
    ~SimulatedNetwork() override;

    void set_quality(const NetworkQuality& quality);
    void set_quality(Direction direction, const NetworkQuality& quality);
    void set_observer(Observer observer);

    // Address by which servers know the workstation.
    const formats::ServerRecord& workstation() const;

    // A server appears at, or disappears from, an address; packets under way to it are then lost.
    void attach(const formats::ServerRecord& address, Endpoint endpoint);
    void detach(const formats::ServerRecord& address);
    // Packets to and from this address vanish while partitioned.
    void partition(const formats::ServerRecord& address, bool on);

    // Takes packets that arrive at the workstation instead of receive(), at DISPATCH_LEVEL; null: nobody.
    using Receiver = std::function<void(const formats::ServerRecord& server, std::span<const std::uint8_t>)>;
    void set_receiver(Receiver receiver);

    // A packet from a server to the workstation.
    void send_from(const formats::ServerRecord& server, std::span<const std::uint8_t> packet);
    // The same without delay and faults: handed to the receive queue at once.
    void inject(std::span<const std::uint8_t> packet);

    const NetworkCounters& counters(Direction direction) const;

    void send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override;
    std::uint32_t receive(void** packet) override;
    void release(void* packet) override;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

// Convenience for tests and simulations: a record for 10.0.0.`host`, UDP port `port`.
formats::ServerRecord simulated_address(std::uint8_t host, std::uint16_t port = 6000);

}  // namespace machine
