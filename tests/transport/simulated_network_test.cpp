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

TEST(SimulatedNetworkQuality, Packets_of_equal_delay_keep_their_order_and_of_varying_delay_overtake)
{
    Simulation simulation;
    std::vector<Arrival> arrivals;
    simulation.record(simulated_address(1), arrivals);
    simulation.run([&] {
        for (std::uint32_t i = 0; i < 100; ++i)
            simulation.send(simulated_address(1), i);
        simulation.machine.sleep_ms(1);
    });
    ASSERT_EQ(arrivals.size(), 100u);
    for (std::uint32_t i = 0; i < 100; ++i)
        EXPECT_EQ(arrivals[i].number, i);
    EXPECT_EQ(arrivals[99].time, arrivals[0].time);

    arrivals.clear();
    NetworkQuality varying;
    varying.delay_min = 50 * machine::ticks_per_us;
    varying.delay_max = 90 * machine::ticks_per_us;
    simulation.network.set_quality(varying);
    Ticks sent = 0;
    simulation.run([&] {
        sent = simulation.machine.scheduler().now();
        for (std::uint32_t i = 0; i < 100; ++i)
            simulation.send(simulated_address(1), i);
        simulation.machine.sleep_ms(1);
    });
    unsigned overtaken = 0;
    for (std::size_t i = 0; i < arrivals.size(); ++i) {
        EXPECT_GE(arrivals[i].time - sent, varying.delay_min);
        EXPECT_LE(arrivals[i].time - sent, varying.delay_max);
        overtaken += i > 0 && arrivals[i].number < arrivals[i - 1].number;
    }
    EXPECT_GT(overtaken, 20u);
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

TEST(SimulatedNetworkAddresses, A_partition_stops_both_ways_and_what_is_under_way_until_it_heals)
{
    Simulation simulation;
    std::vector<Arrival> arrivals;
    const auto server = simulated_address(1);
    simulation.record(server, arrivals);
    simulation.run([&] {
        const std::uint8_t answer[] = {1};
        simulation.send(server, 1);
        simulation.network.send_from(server, answer);
        simulation.network.partition(server, true);
        simulation.send(server, 2);
        simulation.network.send_from(server, answer);
        simulation.machine.sleep_ms(1);
        EXPECT_TRUE(arrivals.empty());
        simulation.network.partition(server, false);
        simulation.send(server, 3);
        simulation.machine.sleep_ms(1);
    });
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].number, 3u);
    EXPECT_EQ(simulation.network.counters(Direction::to_server).partitioned, 2u);
    EXPECT_EQ(simulation.network.counters(Direction::to_workstation).partitioned, 2u);
    EXPECT_EQ(simulation.network.counters(Direction::to_workstation).delivered, 0u);
}

TEST(SimulatedNetworkAddresses, A_server_is_known_by_address_and_port_and_may_disappear)
{
    Simulation simulation;
    std::vector<Arrival> at_6000, at_6001;
    simulation.record(simulated_address(1, 6000), at_6000);
    simulation.record(simulated_address(1, 6001), at_6001);
    simulation.run([&] {
        auto other_card = simulated_address(1, 6001);
        other_card.Hardware[0] = 0x77;
        simulation.send(other_card, 1);
        simulation.send(simulated_address(1, 6002), 2);
        simulation.send(formats::ServerRecord{}, 3);
        simulation.machine.sleep_ms(1);
        simulation.send(simulated_address(1, 6000), 4);
        simulation.network.detach(simulated_address(1, 6000));
        simulation.machine.sleep_ms(1);
    });
    EXPECT_TRUE(at_6000.empty());
    EXPECT_EQ(at_6001.size(), 1u);
    EXPECT_EQ(simulation.network.counters(Direction::to_server).unknown_address, 3u);
}

TEST(SimulatedNetworkAddresses, The_observer_sees_every_packet_and_may_lose_it)
{
    Simulation simulation;
    std::vector<Arrival> arrivals;
    const auto server = simulated_address(1);
    simulation.record(server, arrivals);
    NetworkQuality lossy;
    lossy.loss = 1;
    simulation.network.set_quality(Direction::to_workstation, lossy);
    unsigned seen[2] = {};
    simulation.network.set_observer([&](Direction direction, const formats::ServerRecord& of, auto packet) {
        EXPECT_EQ(of.Ip[3], 1);
        ++seen[direction == Direction::to_server ? 0 : 1];
        return packet[0] == 2 ? SimulatedNetwork::Verdict::drop : SimulatedNetwork::Verdict::pass;
    });
    simulation.run([&] {
        for (std::uint8_t i = 1; i <= 3; ++i) {
            simulation.send(server, i);
            simulation.network.send_from(server, {&i, 1});
        }
        simulation.machine.sleep_ms(1);
    });
    EXPECT_EQ(seen[0], 3u);
    EXPECT_EQ(seen[1], 3u);
    ASSERT_EQ(arrivals.size(), 2u);
    EXPECT_EQ(arrivals[1].number, 3u);
    EXPECT_EQ(simulation.network.counters(Direction::to_server).lost, 1u);
    EXPECT_EQ(simulation.network.counters(Direction::to_workstation).lost, 3u);
}

TEST(SimulatedNetworkReceiving, The_receiver_sleeps_until_a_packet_comes_and_gets_them_in_order)
{
    Simulation simulation;
    simulation.run([&] {
        const std::uint8_t packets[][2] = {{1, 1}, {2, 2}, {3, 3}};
        simulation.network.send_from(simulated_address(1), packets[2]);
        simulation.network.inject(packets[0]);
        simulation.network.inject(packets[1]);
        const Ticks start = simulation.machine.scheduler().now();
        void* held[3];
        for (std::uint8_t i = 0; i < 3; ++i) {
            EXPECT_EQ(simulation.network.receive(&held[i]), 2u);
            EXPECT_EQ(*static_cast<std::uint8_t*>(held[i]), i + 1);
        }
        EXPECT_EQ(simulation.machine.scheduler().now() - start, NetworkQuality{}.delay_min);
        for (void* packet : held)
            simulation.network.release(packet);
    });
}

}  // namespace
