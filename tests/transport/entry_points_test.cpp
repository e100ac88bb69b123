// SPDX-License-Identifier: MIT
#include <vector>

#include "machine/transport/simulated_network.h"
#include "machine/transport/transport.h"
#include "tests/transport/transport_client.h"

namespace {

TEST(ControlRequest, Lengths_and_codes_are_checked)
{
    machine::Machine machine;
    machine::SimulatedNetwork network{machine.scheduler(), 1};
    machine::Transport& transport = machine.add_transport(network);
    const struct {
        ULONG code, input_bytes, output_bytes;
        NTSTATUS status;
        ULONG_PTR information;
    } cases[] = {
        {handshake_code, 360, 20, STATUS_SUCCESS, 20},
        {handshake_code, 400, 64, STATUS_SUCCESS, 20},
        {handshake_code, 359, 20, STATUS_INVALID_PARAMETER, 0},
        {handshake_code, 0, 20, STATUS_INVALID_PARAMETER, 0},
        {handshake_code, 360, 19, STATUS_BUFFER_TOO_SMALL, 0},
        {handshake_code, 360, 0, STATUS_BUFFER_TOO_SMALL, 0},
        {no_server_code, 360, 0, STATUS_SUCCESS, 0},
        {no_server_code, 359, 0, STATUS_INVALID_PARAMETER, 0},
        {0x8000108, 360, 20, STATUS_INVALID_DEVICE_REQUEST, 0},
    };
    machine.run([&] {
        for (const auto& wanted : cases) {
            std::vector<std::uint8_t> input(wanted.input_bytes), output(wanted.output_bytes, 0xEE);
            const ControlResult result =
                control(wanted.code, input.data(), wanted.input_bytes, output.data(), wanted.output_bytes);
            SCOPED_TRACE(testing::Message() << std::hex << wanted.code << std::dec << ", "
                                            << wanted.input_bytes << ", " << wanted.output_bytes);
            EXPECT_EQ(result.final, wanted.status);
            EXPECT_EQ(result.information, wanted.information);
            for (std::size_t i = wanted.information; i < output.size(); ++i)
                EXPECT_EQ(output[i], 0xEE) << "output written beyond the answer, at " << i;
        }
    });
    EXPECT_EQ(transport.handshakes(), 2u);
    EXPECT_EQ(transport.no_server_notices(), 1u);
}

std::uint8_t big_buffer[70000];

// What a driver that breaks a rule works with.
struct Misuser {
    Handover entry;
    formats::ServerRecord server;
    machine::SimulatedNetwork& network;

    void send(void* header, ULONG header_bytes, void* data, ULONG data_bytes)
    {
        entry.send(&server, header, header_bytes, data, data_bytes);
    }
    std::uint8_t* receive()
    {
        network.inject({big_buffer, 26});
        void* packet = nullptr;
        entry.receive(&packet);
        return static_cast<std::uint8_t*>(packet);
    }
};

TEST(EntryPoints, Misuse_is_a_violation)
{
    const struct {
        const char* message;
        void (*commit)(Misuser&);
    } cases[] = {
        {"do not fit a datagram", [](Misuser& m) { m.send(big_buffer, 34, big_buffer, 65507 - 33); }},
        {"do not fit a datagram", [](Misuser& m) { m.send(big_buffer, 34, big_buffer, 0xFFFFFFFF); }},
        {"a pointer is null", [](Misuser& m) { m.send(nullptr, 26, nullptr, 0); }},
        {"a pointer is null", [](Misuser& m) { m.send(big_buffer, 34, nullptr, 1); }},
        {"IRQL too high",
         [](Misuser& m) {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KIRQL old_irql;
             KeAcquireSpinLock(&lock, &old_irql);
             m.receive();
         }},
        {"no packet is out", [](Misuser& m) { m.entry.release(big_buffer); }},
        {"released twice",
         [](Misuser& m) {
             std::uint8_t* const first = m.receive();
             m.receive();
             m.entry.release(first);
             m.entry.release(first);
         }},
        {"not handed out", [](Misuser& m) { m.entry.release(m.receive() + 1); }},
    };
    for (const auto& wrong : cases) {
        machine::Machine machine;
        machine::SimulatedNetwork network{machine.scheduler(), 1};
        machine.add_transport(network);
        const std::string message = violation_in(machine, [&] {
            Misuser misuser{shake_hands(), machine::simulated_address(1), network};
            wrong.commit(misuser);
        });
        EXPECT_NE(message.find(wrong.message), std::string::npos)
            << "wanted: " << wrong.message << "; got: " << message;
    }
}

}  // namespace
