#include <array>
#include <vector>

#include "machine/transport/simulated_network.h"
#include "machine/transport/transport.h"
#include "tests/transport/transport_client.h"

namespace {

using machine::simulated_address;

class EntryPoints : public testing::Test {
protected:
    machine::Machine machine;
    machine::SimulatedNetwork network{machine.scheduler(), 1};
    machine::Transport& transport = machine.add_transport(network);
    formats::ServerRecord server = simulated_address(1);
};

TEST_F(EntryPoints, Packets_go_out_as_header_then_data_and_come_in_whole)
{
    std::vector<std::uint8_t> at_server;
    network.attach(server, [&](const formats::ServerRecord& from, std::span<const std::uint8_t> packet) {
        EXPECT_EQ(from.Port.get(), network.workstation().Port.get());
        at_server.assign(packet.begin(), packet.end());
        const std::uint8_t answer[] = {9, 8, 7};
        network.send_from(server, answer);
    });
    machine.run([&] {
        const Handover entry = shake_hands();
        std::uint8_t header[] = {1, 2, 3};
        std::uint8_t data[] = {4, 5};
        entry.send(&server, header, sizeof header, data, sizeof data);
        void* packet = nullptr;
        EXPECT_EQ(entry.receive(&packet), 3u);
        EXPECT_EQ(static_cast<std::uint8_t*>(packet)[2], 7);
        EXPECT_EQ(transport.unreleased(), 1u);
        std::fill_n(static_cast<std::uint8_t*>(packet), 240, std::uint8_t{0x11});
        entry.release(packet);
        EXPECT_EQ(transport.unreleased(), 0u);
    });
    EXPECT_EQ(at_server, (std::vector<std::uint8_t>{1, 2, 3, 4, 5}));
}

TEST_F(EntryPoints, A_request_without_data_may_carry_any_data_pointer)
{
    std::size_t bytes_at_server = 0;
    network.attach(server, [&](const auto&, auto packet) { bytes_at_server = packet.size(); });
    machine.run([&] {
        const Handover entry = shake_hands();
        std::array<std::uint8_t, 26> header{};
        entry.send(&server, header.data(), header.size(), &machine, 0);
        entry.send(&server, header.data(), header.size(), nullptr, 0);
        machine.sleep_ms(1);
    });
    EXPECT_EQ(bytes_at_server, 26u);
    EXPECT_EQ(network.counters(machine::Direction::to_server).delivered, 2u);
}

// One broken rule each; the text that its violation must contain.
struct Misuse {
    const char* message;
    void (*commit)(const Handover&, formats::ServerRecord&, machine::SimulatedNetwork&);
};

class MisusedEntryPoints : public testing::TestWithParam<Misuse> {};

TEST_P(MisusedEntryPoints, Is_a_violation)
{
    machine::Machine machine;
    machine::SimulatedNetwork network{machine.scheduler(), 1};
    machine.add_transport(network);
    formats::ServerRecord server = simulated_address(1);
    const std::string message =
        violation_in(machine, [&] { GetParam().commit(shake_hands(), server, network); });
    EXPECT_NE(message.find(GetParam().message), std::string::npos) << "got: " << message;
}

std::uint8_t big_buffer[70000];

INSTANTIATE_TEST_SUITE_P(
    All, MisusedEntryPoints,
    testing::Values(
        Misuse{"do not fit a datagram",
               [](const Handover& entry, formats::ServerRecord& server, machine::SimulatedNetwork&) {
                   entry.send(&server, big_buffer, 34, big_buffer, 65507 - 33);
               }},
        Misuse{"do not fit a datagram",
               [](const Handover& entry, formats::ServerRecord& server, machine::SimulatedNetwork&) {
                   entry.send(&server, big_buffer, 34, big_buffer, 0xFFFFFFFF);
               }},
        Misuse{"a pointer is null",
               [](const Handover& entry, formats::ServerRecord& server, machine::SimulatedNetwork&) {
                   entry.send(&server, nullptr, 26, nullptr, 0);
               }},
        Misuse{"a pointer is null",
               [](const Handover& entry, formats::ServerRecord& server, machine::SimulatedNetwork&) {
                   entry.send(&server, big_buffer, 34, nullptr, 1);
               }},
        Misuse{"IRQL too high",
               [](const Handover& entry, formats::ServerRecord&, machine::SimulatedNetwork& network) {
                   network.inject({big_buffer, 26});
                   KSPIN_LOCK lock;
                   KeInitializeSpinLock(&lock);
                   KIRQL old_irql;
                   KeAcquireSpinLock(&lock, &old_irql);
                   void* packet;
                   entry.receive(&packet);
               }},
        Misuse{"no packet is out", [](const Handover& entry, formats::ServerRecord&,
                                      machine::SimulatedNetwork&) { entry.release(big_buffer); }},
        Misuse{"released twice",
               [](const Handover& entry, formats::ServerRecord&, machine::SimulatedNetwork& network) {
                   network.inject({big_buffer, 26});
                   network.inject({big_buffer, 26});
                   void *first, *second;
                   entry.receive(&first);
                   entry.receive(&second);
                   entry.release(first);
                   entry.release(first);
               }},
        Misuse{"not handed out",
               [](const Handover& entry, formats::ServerRecord&, machine::SimulatedNetwork& network) {
                   network.inject({big_buffer, 26});
                   void* packet;
                   entry.receive(&packet);
                   entry.release(static_cast<std::uint8_t*>(packet) + 1);
               }}));

}  // namespace
