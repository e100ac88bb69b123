// SPDX-License-Identifier: MIT
#include "machine/ndis/frame_hosts.h"

#include <algorithm>
#include <cstring>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

using formats::ServerRecord;

constexpr Ticks wire_time = 20 * ticks_per_us;
constexpr std::size_t frame_bytes_min = 60;

// As the standard words it; the driver's own is another.
std::uint16_t sum_of(std::span<const std::uint8_t> bytes, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i < bytes.size(); ++i)
        sum += i % 2 == 0 ? static_cast<std::uint32_t>(bytes[i]) << 8 : bytes[i];
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

std::uint16_t udp_sum(std::span<const std::uint8_t> frame, std::size_t udp_bytes)
{
    const std::uint32_t pseudo = sum_of(frame.subspan(26, 8), static_cast<std::uint32_t>(17 + udp_bytes));
    return sum_of(frame.subspan(34, udp_bytes), pseudo);
}

void put(std::uint8_t (&field)[2], unsigned value)
{
    field[0] = static_cast<std::uint8_t>(value >> 8);
    field[1] = static_cast<std::uint8_t>(value);
}

}  // namespace

FrameHosts::FrameHosts(Scheduler& scheduler, SimulatedNetwork& network, std::uint16_t workstation_port)
    : scheduler_(scheduler), network_(network), port_(workstation_port)
{
}

FrameHosts::~FrameHosts()
{
    network_.set_receiver(nullptr);
}

void FrameHosts::connect(NdisCard& card)
{
    card_ = &card;
    network_.set_receiver([this](const ServerRecord& server, std::span<const std::uint8_t> packet) {
        card_->arrive(datagram_frame(server, packet));
    });
}

void FrameHosts::arrive_later(FrameBytes frame)
{
    scheduler_.call_at(scheduler_.now() + wire_time,
                       [this, frame = std::move(frame)] { card_->arrive(frame); });
}

void FrameHosts::take(std::span<const std::uint8_t> frame)
{
    if (frame.size() < sizeof(formats::ArpFrame))
        violation("a frame that is too short for anything");
    const auto& ethernet = *reinterpret_cast<const formats::EthernetHeader*>(frame.data());
    if (std::memcmp(ethernet.From, network_.workstation().Hardware, 6) != 0)
        violation("a frame in the name of another card");
    if (ethernet.Type.get() == formats::ethernet_type_arp)
        take_arp(*reinterpret_cast<const formats::ArpFrame*>(frame.data()));
    else if (ethernet.Type.get() == formats::ethernet_type_ipv4)
        take_datagram(frame);
    else
        violation("a frame of a protocol that is not the driver's");
}

void FrameHosts::take_arp(const formats::ArpFrame& frame)
{
    const ServerRecord& own = network_.workstation();
    if (std::memcmp(frame.Arp.Sender_Ip, own.Ip, 4) != 0 ||
        std::memcmp(frame.Arp.Sender_Hardware, own.Hardware, 6) != 0)
        violation("ARP in the name of another");
    if (frame.Arp.Operation.get() == formats::arp_answer) {
        ++counters_.arp_answers;
        return;
    }
    ++counters_.arp_questions;
    arrive_later(arp_frame(simulated_address(frame.Arp.Target_Ip[3]), formats::arp_answer));
}

void FrameHosts::take_datagram(std::span<const std::uint8_t> frame)
{
    const auto& headers = *reinterpret_cast<const formats::DatagramHeaders*>(frame.data());
    const std::size_t ip_bytes = headers.Ip.Bytes.get(), udp_bytes = headers.Udp.Bytes.get();
    if (headers.Ip.Version_And_Words != 0x45 || ip_bytes + 14 != frame.size() || udp_bytes + 20 != ip_bytes ||
        headers.Ip.Protocol != formats::ipv4_protocol_udp || headers.Udp.From_Port.get() != port_ ||
        std::memcmp(headers.Ip.From, network_.workstation().Ip, 4) != 0)
        violation("a datagram whose headers are wrong");
    if (sum_of(frame.subspan(14, 20)) != 0xFFFF || udp_sum(frame, udp_bytes) != 0xFFFF)
        violation("a datagram whose checksums are wrong");
    const ServerRecord to = simulated_address(headers.Ip.To[3], headers.Udp.To_Port.get());
    if (std::memcmp(headers.Ethernet.To, to.Hardware, 6) != 0) {
        ++counters_.misdirected;
        return;
    }
    ++counters_.datagrams;
    network_.send(to, frame.subspan(sizeof headers), {});
}

FrameBytes FrameHosts::datagram_frame(const ServerRecord& server, std::span<const std::uint8_t> packet) const
{
    formats::DatagramHeaders headers{};
    std::memcpy(headers.Ethernet.To, network_.workstation().Hardware, 6);
    std::memcpy(headers.Ethernet.From, server.Hardware, 6);
    headers.Ethernet.Type.set(formats::ethernet_type_ipv4);
    headers.Ip.Version_And_Words = 0x45;
    headers.Ip.Bytes.set(static_cast<std::uint16_t>(28 + packet.size()));
    headers.Ip.Hops_Left = 64;
    headers.Ip.Protocol = formats::ipv4_protocol_udp;
    std::memcpy(headers.Ip.From, server.Ip, 4);
    std::memcpy(headers.Ip.To, network_.workstation().Ip, 4);
    headers.Udp.From_Port = server.Port;
    headers.Udp.To_Port.set(port_);
    headers.Udp.Bytes.set(static_cast<std::uint16_t>(8 + packet.size()));
    FrameBytes frame(std::max(sizeof headers + packet.size(), frame_bytes_min));
    std::memcpy(frame.data(), &headers, sizeof headers);
    std::ranges::copy(packet, frame.begin() + sizeof headers);
    auto& written = *reinterpret_cast<formats::DatagramHeaders*>(frame.data());
    put(written.Ip.Checksum, ~unsigned{sum_of({frame.data() + 14, 20})});
    put(written.Udp.Checksum, ~unsigned{udp_sum(frame, 8 + packet.size())});
    return frame;
}

FrameBytes FrameHosts::arp_frame(const ServerRecord& server, std::uint16_t operation) const
{
    const ServerRecord& own = network_.workstation();
    formats::ArpFrame frame{};
    std::memcpy(frame.Ethernet.To, own.Hardware, 6);
    std::memcpy(frame.Ethernet.From, server.Hardware, 6);
    frame.Ethernet.Type.set(formats::ethernet_type_arp);
    frame.Arp.Hardware_Type.set(formats::arp_hardware_ethernet);
    frame.Arp.Protocol_Type.set(formats::ethernet_type_ipv4);
    frame.Arp.Hardware_Bytes = 6;
    frame.Arp.Protocol_Bytes = 4;
    frame.Arp.Operation.set(operation);
    std::memcpy(frame.Arp.Sender_Hardware, server.Hardware, 6);
    std::memcpy(frame.Arp.Sender_Ip, server.Ip, 4);
    std::memcpy(frame.Arp.Target_Hardware, own.Hardware, 6);
    std::memcpy(frame.Arp.Target_Ip, own.Ip, 4);
    FrameBytes padded(frame_bytes_min);
    std::memcpy(padded.data(), &frame, sizeof frame);
    return padded;
}

}  // namespace machine
