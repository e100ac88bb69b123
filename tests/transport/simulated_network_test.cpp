// SPDX-License-Identifier: MIT
#include <cmath>
#include <vector>

#include "machine/transport/simulated_network.h"
#include "tests/transport/transport_client.h"

namespace {

using machine::Direction;
using machine::NetworkQuality;
using machine::simulated_address;
using machine::SimulatedNetwork;
using machine::Ticks;

constexpr std::uint64_t seed = 20;

struct Arrival {
    std::uint32_t number;
    Ticks time;
    bool operator==(const Arrival&) const = default;
};

// A machine with a network, and numbered packets through it.
struct Simulation {
    explicit Simulation(std::uint64_t network_seed = seed) : network(machine.scheduler(), network_seed) {}

    machine::Machine machine;
    SimulatedNetwork network;

    void send(const formats::ServerRecord& to, std::uint32_t number)
    {
        network.send(to, {reinterpret_cast<const std::uint8_t*>(&number), sizeof number}, {});
    }

    // Keeps what arrives at this address.
    void record(const formats::ServerRecord& address, std::vector<Arrival>& arrivals)
    {
        network.attach(address, [this, &arrivals](const auto&, std::span<const std::uint8_t> packet) {
            Arrival arrival{0, machine.scheduler().now()};
            ASSERT_EQ(packet.size(), sizeof arrival.number);
            std::memcpy(&arrival.number, packet.data(), sizeof arrival.number);
            arrivals.push_back(arrival);
        });
    }

    void run(std::function<void()> body)
    {
        EXPECT_EQ(machine.run(std::move(body)), machine::Outcome::finished);
    }
};

NetworkQuality bad_quality()
{
    NetworkQuality quality;
    quality.delay_max = 300 * machine::ticks_per_us;
    quality.loss = 0.1;
    quality.duplication = 0.05;
    quality.reordering = 0.2;
    quality.corruption = 0.02;
    return quality;
}

void expect_share(std::uint64_t count, std::uint64_t of, double probability, const char* what)
{
    const double expected = static_cast<double>(of) * probability;
    EXPECT_NEAR(static_cast<double>(count), expected, 5 * std::sqrt(expected)) << what << ", seed " << seed;
}

TEST(SimulatedNetworkQuality, Faults_come_as_often_as_asked_and_every_packet_is_accounted_for)
{
    Simulation simulation;
    std::vector<Arrival> arrivals;
    simulation.record(simulated_address(1), arrivals);
    simulation.network.set_quality(Direction::to_server, bad_quality());
    constexpr std::uint32_t packets = 20000;
    simulation.run([&] {
        for (std::uint32_t i = 0; i < packets; ++i)
            simulation.send(simulated_address(1), i);
        simulation.machine.sleep_ms(10);
    });
    const auto& counters = simulation.network.counters(Direction::to_server);
    EXPECT_EQ(counters.sent, packets);
    expect_share(counters.lost, packets, 0.1, "lost");
    expect_share(counters.corrupted, packets, 0.9 * 0.02, "corrupted");
    expect_share(counters.duplicated, packets, 0.9 * 0.98 * 0.05, "duplicated");
    expect_share(counters.reordered, packets, 0.9 * 0.98 * 0.2, "reordered");
    EXPECT_EQ(counters.delivered, arrivals.size());
    EXPECT_EQ(counters.delivered, packets - counters.lost - counters.corrupted + counters.duplicated);
    EXPECT_EQ(simulation.network.counters(Direction::to_workstation).sent, 0u);
}

// Arrivals at server 1 while server 2, sent to in between, is reachable or not.
std::vector<Arrival> arrivals_at_first_server(std::uint64_t network_seed, bool second_is_there)
{
    Simulation simulation(network_seed);
    std::vector<Arrival> first, second;
    simulation.record(simulated_address(1), first);
    simulation.record(simulated_address(2), second);
    simulation.network.partition(simulated_address(2), !second_is_there);
    simulation.network.set_quality(bad_quality());
    simulation.run([&] {
        for (std::uint32_t i = 0; i < 500; ++i) {
            simulation.send(simulated_address(2), i);
            simulation.send(simulated_address(1), i);
        }
        simulation.machine.sleep_ms(10);
    });
    EXPECT_EQ(second.empty(), !second_is_there);
    return first;
}

TEST(SimulatedNetworkQuality, A_seed_replays_every_fate_whatever_becomes_of_other_packets)
{
    const std::vector<Arrival> arrivals = arrivals_at_first_server(seed, true);
    EXPECT_GT(arrivals.size(), 300u);
    EXPECT_EQ(arrivals_at_first_server(seed, true), arrivals);
    EXPECT_EQ(arrivals_at_first_server(seed, false), arrivals);
    EXPECT_NE(arrivals_at_first_server(seed + 1, true), arrivals);
}

}  // namespace
