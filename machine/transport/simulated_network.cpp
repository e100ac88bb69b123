// SPDX-License-Identifier: MIT
#include "machine/transport/simulated_network.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <random>
#include <unordered_map>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, bytes) static_cast<void>(address)
#define ASAN_UNPOISON_MEMORY_REGION(address, bytes) static_cast<void>(address)
#endif

#include <nt.h>

#include "formats/wire.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr std::uint8_t workstation_host = 254;
constexpr std::uint8_t released_fill = 0xDD;

using Bytes = std::span<const std::uint8_t>;

// What servers are known by: the record without its hardware address.
using AddressKey = std::array<std::uint8_t, 6>;

AddressKey key_of(const formats::ServerRecord& record)
{
    const std::uint16_t port = record.Port.get();
    return {record.Ip[0],
            record.Ip[1],
            record.Ip[2],
            record.Ip[3],
            static_cast<std::uint8_t>(port >> 8),
            static_cast<std::uint8_t>(port)};
}

// Buffers of received packets. One that is given back keeps its memory for the next packet, filled
// with a pattern so that whoever still reads it finds no packet there.
class PacketBuffers {
public:
    void* take(Bytes packet)
    {
        const std::size_t bytes = std::max<std::size_t>(packet.size(), formats::poll_buffer_bytes);
        const auto fits = std::find_if(free_.begin(), free_.end(),
                                       [bytes](const Buffer& buffer) { return buffer.bytes >= bytes; });
        Buffer buffer;
        if (fits != free_.end()) {
            buffer = std::move(*fits);
            free_.erase(fits);
        } else {
            buffer = {std::make_unique<std::uint8_t[]>(bytes), bytes};
        }
        void* const address = buffer.memory.get();
        ASAN_UNPOISON_MEMORY_REGION(address, bytes);
        std::copy(packet.begin(), packet.end(), static_cast<std::uint8_t*>(address));
        out_.emplace(address, std::move(buffer));
        return address;
    }

    void give_back(void* address)
    {
        const auto found = out_.find(address);
        if (found == out_.end())
            violation("transport: a packet is released that is not handed out (released twice?)");
        ASAN_UNPOISON_MEMORY_REGION(address, found->second.bytes);  // a short packet left the end poisoned
        std::memset(address, released_fill, found->second.bytes);
        ASAN_POISON_MEMORY_REGION(address, found->second.bytes);
        free_.push_back(std::move(found->second));
        out_.erase(found);
    }

private:
    struct Buffer {
        std::unique_ptr<std::uint8_t[]> memory;
        std::size_t bytes = 0;
    };
    std::vector<Buffer> free_;
    std::unordered_map<void*, Buffer> out_;
};

// The fate of one packet. Every packet takes the same number of draws, whatever becomes of it.
struct Fate {
    bool lost, corrupted, duplicated, reordered;
    Ticks delay, duplicate_delay;
};

Fate draw_fate(std::mt19937_64& random, const NetworkQuality& quality)
{
    const auto fraction = [&random] { return static_cast<double>(random() >> 11) * 0x1p-53; };
    const auto ticks_up_to = [](double share, Ticks span) {
        return static_cast<Ticks>(share * static_cast<double>(span + 1));
    };
    const Ticks spread = std::max<Ticks>(quality.delay_max - quality.delay_min, 0);
    Fate fate;
    fate.lost = fraction() < quality.loss;
    fate.corrupted = fraction() < quality.corruption;
    fate.duplicated = fraction() < quality.duplication;
    fate.reordered = fraction() < quality.reordering;
    fate.delay = quality.delay_min + ticks_up_to(fraction(), spread);
    fate.duplicate_delay = quality.delay_min + ticks_up_to(fraction(), spread);
    const Ticks reorder_delay = ticks_up_to(fraction(), quality.reorder_delay);
    if (fate.reordered)
        fate.delay += reorder_delay;
    return fate;
}

}  // namespace

// No lock guards this: fibers and timer callbacks of the simulated scheduler run one at a time, and
// nothing here gives way in the middle of a change.
struct SimulatedNetwork::Parts {
    struct Path {
        NetworkQuality quality;
        NetworkCounters counters;
        std::mt19937_64 random;
    };
    struct UnderWay {
        Direction direction;
        formats::ServerRecord server;
        std::vector<std::uint8_t> packet;
    };

    Scheduler& scheduler;
    formats::ServerRecord workstation = simulated_address(workstation_host);
    Path paths[2];
    Observer observer;
    Receiver receiver;
    std::map<AddressKey, Endpoint> endpoints;
    std::map<AddressKey, bool> partitioned;
    std::multimap<Ticks, UnderWay> under_way;  // by time of arrival; equal times in order of sending
    std::deque<std::vector<std::uint8_t>> arrived;
    KSEMAPHORE arrivals;
    PacketBuffers buffers;

    Parts(Scheduler& owner, std::uint64_t seed) : scheduler(owner)
    {
        for (std::uint64_t i = 0; i < std::size(paths); ++i)
            paths[i].random.seed(seed * std::size(paths) + i);
        KeInitializeSemaphore(&arrivals, 0, MAXLONG);
    }

    Path& path(Direction direction) { return paths[direction == Direction::to_server ? 0 : 1]; }

    bool is_partitioned(const formats::ServerRecord& server) const
    {
        const auto found = partitioned.find(key_of(server));
        return found != partitioned.end() && found->second;
    }

    void transmit(Direction direction, const formats::ServerRecord& server, std::vector<std::uint8_t> packet)
    {
        Path& way = path(direction);
        ++way.counters.sent;
        const Fate fate = draw_fate(way.random, way.quality);
        if (observer && observer(direction, server, packet) == Verdict::drop) {
            ++way.counters.lost;
            return;
        }
        if (is_partitioned(server)) {
            ++way.counters.partitioned;
            return;
        }
        if (fate.lost) {
            ++way.counters.lost;
            return;
        }
        if (fate.corrupted) {
            ++way.counters.corrupted;
            return;
        }
        way.counters.reordered += fate.reordered;
        if (fate.duplicated) {
            ++way.counters.duplicated;
            put_under_way(fate.duplicate_delay, {direction, server, packet});
        }
        put_under_way(fate.delay, {direction, server, std::move(packet)});
    }

    void put_under_way(Ticks delay, UnderWay packet)
    {
        const Ticks arrival = scheduler.now() + delay;
        under_way.emplace(arrival, std::move(packet));
        scheduler.call_at(arrival, [this] { deliver_next(); });
    }

    // One call per packet under way, at its time of arrival: the earliest is always the one that is due.
    void deliver_next()
    {
        const UnderWay packet = std::move(under_way.extract(under_way.begin()).mapped());
        NetworkCounters& counters = path(packet.direction).counters;
        if (is_partitioned(packet.server)) {
            ++counters.partitioned;
            return;
        }
        if (packet.direction == Direction::to_workstation) {
            ++counters.delivered;
            if (receiver)
                receiver(packet.server, packet.packet);
            else
                queue_for_workstation(packet.packet);
            return;
        }
        const auto endpoint = endpoints.find(key_of(packet.server));
        if (endpoint == endpoints.end()) {
            ++counters.unknown_address;
            return;
        }
        ++counters.delivered;
        const Endpoint receive = endpoint->second;  // it may detach itself
        receive(workstation, packet.packet);
    }

    void queue_for_workstation(Bytes packet)
    {
        arrived.emplace_back(packet.begin(), packet.end());
        KeReleaseSemaphore(&arrivals, IO_NO_INCREMENT, 1, FALSE);
    }
};

SimulatedNetwork::SimulatedNetwork(Scheduler& scheduler, std::uint64_t seed)
    : parts_(std::make_unique<Parts>(scheduler, seed))
{
    if (!scheduler.simulated())
        violation("the simulated network needs the simulated scheduler");
}

SimulatedNetwork::~SimulatedNetwork() = default;

void SimulatedNetwork::set_quality(const NetworkQuality& quality)
{
    for (auto& path : parts_->paths)
        path.quality = quality;
}

void SimulatedNetwork::set_quality(Direction direction, const NetworkQuality& quality)
{
    parts_->path(direction).quality = quality;
}

void SimulatedNetwork::set_observer(Observer observer)
{
    parts_->observer = std::move(observer);
}

const formats::ServerRecord& SimulatedNetwork::workstation() const
{
    return parts_->workstation;
}

void SimulatedNetwork::attach(const formats::ServerRecord& address, Endpoint endpoint)
{
    parts_->endpoints[key_of(address)] = std::move(endpoint);
}

void SimulatedNetwork::detach(const formats::ServerRecord& address)
{
    parts_->endpoints.erase(key_of(address));
}

void SimulatedNetwork::partition(const formats::ServerRecord& address, bool on)
{
    parts_->partitioned[key_of(address)] = on;
}

void SimulatedNetwork::set_receiver(Receiver receiver)
{
    parts_->receiver = std::move(receiver);
}

void SimulatedNetwork::send_from(const formats::ServerRecord& server, std::span<const std::uint8_t> packet)
{
    parts_->transmit(Direction::to_workstation, server, {packet.begin(), packet.end()});
}

void SimulatedNetwork::inject(std::span<const std::uint8_t> packet)
{
    parts_->queue_for_workstation(packet);
}

const NetworkCounters& SimulatedNetwork::counters(Direction direction) const
{
    return parts_->path(direction).counters;
}

void SimulatedNetwork::send(const formats::ServerRecord& to, std::span<const std::uint8_t> header,
                            std::span<const std::uint8_t> data)
{
    std::vector<std::uint8_t> packet;
    packet.reserve(header.size() + data.size());
    packet.insert(packet.end(), header.begin(), header.end());
    packet.insert(packet.end(), data.begin(), data.end());
    parts_->transmit(Direction::to_server, to, std::move(packet));
}

std::uint32_t SimulatedNetwork::receive(void** packet)
{
    KeWaitForSingleObject(&parts_->arrivals, Executive, KernelMode, FALSE, nullptr);
    const std::vector<std::uint8_t> bytes = std::move(parts_->arrived.front());
    parts_->arrived.pop_front();
    *packet = parts_->buffers.take(bytes);
    return static_cast<std::uint32_t>(bytes.size());
}

void SimulatedNetwork::release(void* packet)
{
    parts_->buffers.give_back(packet);
}

formats::ServerRecord simulated_address(std::uint8_t host, std::uint16_t port)
{
    formats::ServerRecord record{
        .Ip = {10, 0, 0, host}, .Hardware = {2, 0, 0, 0, 0, host}, .Port = {}, .Zero = {}};
    record.Port.set(port);
    return record;
}

}  // namespace machine
