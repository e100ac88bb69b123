// SPDX-License-Identifier: MIT
#include "machine/transport/udp_sender.h"

#include <thread>

#include "tests/transport/plain_peer.h"

namespace {

constexpr std::size_t header_bytes = 34;

class UdpSending : public testing::Test {
protected:
    UdpSending()
        : socket(std::make_shared<machine::UdpSocket>("127.0.0.1", std::chrono::milliseconds(10))),
          sender(std::make_shared<machine::UdpSender>(socket))
    {
    }

    void send(PlainPeer& to, const Packet& packet)
    {
        const std::span bytes(packet);
        const std::size_t header = std::min(header_bytes, bytes.size());
        sender->send(to.record, bytes.first(header), bytes.subspan(header));
    }

    std::uint64_t calls()
    {
        machine::LinkCounters counters;
        sender->add_counters(counters);
        return counters.send_calls;
    }

    std::shared_ptr<machine::UdpSocket> socket;
    std::shared_ptr<machine::UdpSender> sender;
    PlainPeer peer;
};

TEST_F(UdpSending, Any_mix_of_lengths_and_addresses_arrives_unchanged_and_in_order_at_each)
{
    PlainPeer other;
    const std::size_t lengths[] = {1420, 1420, 35, 35, 1420, 900, 900, 901, 5000, 5000, 5000, 5000, 1420};
    unsigned number = 0;
    for (unsigned round = 0; round < 20; ++round) {
        std::vector<std::pair<PlainPeer*, Packet>> sent;
        for (const std::size_t length : lengths) {
            sent.emplace_back(number % 7 == 6 ? &other : &peer, numbered_packet(number, length));
            send(*sent.back().first, sent.back().second);
            ++number;
        }
        sender->flush();
        for (const auto& [to, packet] : sent)
            ASSERT_EQ(to->receive(), packet) << "round " << round;
    }
    EXPECT_TRUE(peer.receive(false).empty());
}

TEST_F(UdpSending, A_long_series_fills_calls_or_leaves_packet_by_packet_when_segmentation_is_refused)
{
    for (const int refused : {0, 1}) {  // by the system, for a socket without checksums
        ASSERT_EQ(setsockopt(socket->descriptor(), SOL_SOCKET, SO_NO_CHECK, &refused, sizeof refused), 0);
        for (const unsigned length : {100, 9000}) {  // limited by the number of packets, and by bytes
            const unsigned count = length == 100 ? 200 : 12;
            for (unsigned i = 0; i < count; ++i)
                send(peer, numbered_packet(i, length));
            sender->flush();
            for (unsigned i = 0; i < count; ++i)
                ASSERT_EQ(peer.receive(), numbered_packet(i, length)) << "packet " << i << " of " << length;
        }
        if (!refused) {
            EXPECT_EQ(calls(), 4u + 2u);
        }
    }
    EXPECT_TRUE(peer.receive(false).empty());
}

TEST_F(UdpSending, What_a_thread_has_gathered_leaves_when_it_ends_and_mixes_with_no_other_threads)
{
    send(peer, numbered_packet(1, 100));
    std::thread([this] { send(peer, numbered_packet(2, 100)); }).join();
    EXPECT_EQ(peer.receive(), numbered_packet(2, 100));
    EXPECT_TRUE(peer.receive(false).empty());
    sender->flush();
    EXPECT_EQ(peer.receive(), numbered_packet(1, 100));
}

}  // namespace
