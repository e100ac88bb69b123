// SPDX-License-Identifier: MIT
#include "machine/transport/udp_link.h"

#include <functional>
#include <numeric>
#include <system_error>
#include <thread>

#include "formats/wire.h"
#include "machine/transport/transport.h"
#include "tests/transport/plain_peer.h"
#include "tests/transport/transport_client.h"

namespace {

machine::MachineConfig real_machine()
{
    machine::MachineConfig config;
    config.scheduler = machine::SchedulerKind::real;
    return config;
}

// A link and a peer that has heard from it and so knows its address.
class UdpLinkTest : public testing::Test {
protected:
    UdpLinkTest()
    {
        link = std::make_unique<machine::UdpLink>(machine->scheduler(), "127.0.0.1");
        const Packet hello{1, 2, 3};
        link->send(peer.record, hello, {});
        EXPECT_EQ(peer.receive(), hello);
    }
    ~UdpLinkTest() override
    {
        machine.reset();
        link.reset();
    }

    void run(std::function<void()> body)
    {
        EXPECT_EQ(machine->run(std::move(body)), machine::Outcome::finished);
    }

    struct Held {
        std::uint8_t* place;
        std::uint32_t bytes;
        Packet content() const { return {place, place + bytes}; }
    };
    Held receive()
    {
        void* packet = nullptr;
        const std::uint32_t bytes = link->receive(&packet);
        return {static_cast<std::uint8_t*>(packet), bytes};
    }

    std::unique_ptr<machine::Machine> machine = std::make_unique<machine::Machine>(real_machine());
    std::unique_ptr<machine::UdpLink> link;
    PlainPeer peer;
};

TEST_F(UdpLinkTest, A_joined_series_comes_out_as_the_packets_that_were_sent)
{
    Packet series;
    for (unsigned i = 0; i < 12; ++i) {
        const Packet packet = numbered_packet(i, i < 11 ? 1420 : 1172);
        series.insert(series.end(), packet.begin(), packet.end());
    }
    run([&] {
        for (unsigned round = 0; round < 40; ++round) {  // more series than there are buffers
            peer.answer(series, 1420);
            std::vector<Held> held;
            for (unsigned i = 0; i < 12; ++i) {
                held.push_back(receive());
                ASSERT_EQ(held[i].content(), numbered_packet(i, i < 11 ? 1420 : 1172)) << "packet " << i;
            }
            for (const unsigned i : {5, 0, 11, 1, 10, 2, 9, 3, 8, 4, 7, 6})
                link->release(held[i].place);
        }
    });
    EXPECT_EQ(link->counters().packets_received, 40u * 12);
    EXPECT_EQ(link->counters().bytes_received, 40u * series.size());
    EXPECT_LE(link->counters().receive_calls, 80u);
}

TEST_F(UdpLinkTest, Every_packet_has_room_for_a_polls_reply_of_its_own)
{
    struct Series {
        std::uint16_t packet_bytes;
        unsigned count;
    };
    run([&] {
        for (const Series series : {Series{26, 20}, Series{239, 5}, Series{240, 5}, Series{1420, 46}}) {
            Packet bytes;
            for (unsigned i = 0; i < series.count; ++i) {
                const Packet packet = numbered_packet(i, series.packet_bytes);
                bytes.insert(bytes.end(), packet.begin(), packet.end());
            }
            bytes.resize(std::min<std::size_t>(bytes.size() + 20, 65507));  // the last packet is a short one
            peer.answer(bytes, series.packet_bytes);
            std::vector<std::uint8_t*> held;
            for (unsigned i = 0; i < series.count; ++i) {
                const Held packet = receive();
                EXPECT_EQ(packet.content(), numbered_packet(i, series.packet_bytes)) << "packet " << i;
                std::fill_n(packet.place, formats::poll_buffer_bytes, std::uint8_t{0xBB});
                held.push_back(packet.place);
            }
            const Held last = receive();
            EXPECT_EQ(last.bytes, bytes.size() % series.packet_bytes);
            std::fill_n(last.place, formats::poll_buffer_bytes, std::uint8_t{0xBB});
            link->release(last.place);
            for (std::uint8_t* packet : held)
                link->release(packet);
        }
    });
}

TEST_F(UdpLinkTest, Gathered_fragments_leave_when_their_thread_blocks)
{
    run([&] {
        const std::uint64_t calls = link->counters().send_calls;
        for (unsigned i = 0; i < 5; ++i) {
            const Packet packet = numbered_packet(i, 1420);
            link->send(peer.record, std::span(packet).first(34), std::span(packet).subspan(34));
        }
        EXPECT_TRUE(peer.receive(false).empty());
        machine->sleep_ms(1);
        for (unsigned i = 0; i < 5; ++i)
            EXPECT_EQ(peer.receive(), numbered_packet(i, 1420));
        EXPECT_EQ(link->counters().send_calls, calls + 1);
    });
}

TEST_F(UdpLinkTest, A_packet_released_twice_or_at_a_wrong_place_is_a_violation)
{
    std::uint8_t elsewhere;
    const struct {
        const char* what;
        std::uint32_t packet_bytes;
        std::function<std::uint8_t*(std::uint8_t*)> wrong_place;
    } cases[] = {
        {"released twice", 1420, [this](auto place) { return link->release(place), place; }},
        {"short one released twice", 26, [this](auto place) { return link->release(place), place; }},
        {"inside a packet", 1420, [](auto place) { return place + 1; }},
        {"inside a short packet", 26, [](auto place) { return place + 8; }},
        {"nowhere near", 26, [&elsewhere](auto) { return &elsewhere; }},
    };
    for (const auto& wrong : cases) {
        const std::string message = violation_in(*machine, [&] {
            peer.answer(numbered_packet(1, wrong.packet_bytes));
            link->release(wrong.wrong_place(receive().place));
        });
        EXPECT_NE(message.find("not handed out"), std::string::npos) << wrong.what << ": " << message;
    }
}

TEST(UdpLinkPower, A_machine_is_switched_off_while_its_receiver_waits)
{
    std::unique_ptr<machine::UdpLink> link;
    {
        machine::Machine machine(real_machine());
        link = std::make_unique<machine::UdpLink>(machine.scheduler(), "127.0.0.1");
        machine.add_transport(*link);
        EXPECT_EQ(machine.run([&] {
            const Handover entry = shake_hands();
            machine.scheduler().spawn("receiver", [entry] {
                void* packet;
                entry.receive(&packet);
                ADD_FAILURE() << "the receiver came back";
            });
            machine.sleep_ms(5);
        }),
                  machine::Outcome::finished);
    }
    link.reset();
    // The next machine of the process has a working link.
    machine::Machine machine(real_machine());
    link = std::make_unique<machine::UdpLink>(machine.scheduler(), "127.0.0.1");
    PlainPeer peer;
    machine.run([&] {
        link->send(peer.record, numbered_packet(1, 26), {});
        EXPECT_EQ(peer.receive(), numbered_packet(1, 26));
    });
}

}  // namespace
