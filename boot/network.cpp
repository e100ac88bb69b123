// SPDX-License-Identifier: MIT
#include "boot/network.h"

#include "boot/pc.h"
#include "boot/transfer.h"

namespace boot {

std::uint8_t receive_buffer[datagram_bytes_max];

namespace {

using formats::Be16;
using formats::Le16;

// Parameters of the card's services.
struct CachedInfo {
    Le16 Status, Type, Size, Offset, Segment, Limit;
};
struct UdpOpen {
    Le16 Status;
    std::uint8_t Ip[4];
};
struct UdpWrite {
    Le16 Status;
    std::uint8_t Ip[4], Gateway[4];
    Be16 Own_Port, Port;
    Le16 Size, Offset, Segment;
};
struct UdpRead {
    Le16 Status;
    std::uint8_t From[4], To[4];
    Be16 From_Port, To_Port;
    Le16 Size, Offset, Segment;
};
static_assert(sizeof(CachedInfo) == 12 && sizeof(UdpOpen) == 6);
static_assert(sizeof(UdpWrite) == 20 && sizeof(UdpRead) == 20);

constexpr unsigned service_udp_open = 0x30, service_udp_read = 0x32, service_udp_write = 0x33,
                   service_cached_info = 0x71;
constexpr std::uint16_t cached_dhcp_answer = 2, cached_boot_answer = 3;
constexpr std::uint32_t pxe_signature = 0x45585021;  // "!PXE"

constexpr unsigned first_port = 49152;

NetworkPlace network_place;
std::uint16_t port_of_ours;

template <typename Parameters>
bool service(unsigned opcode, Parameters& parameters)
{
    return pxe_call(opcode, &parameters) == 0 && parameters.Status.get() == 0;
}

std::uint16_t offset_of(const void* ours)
{
    return static_cast<std::uint16_t>(reinterpret_cast<std::uintptr_t>(ours));
}

void take_cached(NetworkPlace& place, std::uint16_t type)
{
    CachedInfo info{};
    info.Type.set(type);
    info.Size.set(sizeof receive_buffer);
    info.Offset.set(offset_of(receive_buffer));
    info.Segment.set(own_segment());
    if (service(service_cached_info, info))
        take_dhcp_packet(place, receive_buffer,
                         info.Size.get() < sizeof receive_buffer ? info.Size.get() : sizeof receive_buffer);
}

}  // namespace

bool open_card(NetworkPlace& place)
{
    if (peek<std::uint32_t>(pxe_structure) != pxe_signature)
        return false;
    pxe_entry = peek<std::uint32_t>(pxe_structure + 0x10);
    take_cached(place, cached_boot_answer);
    take_cached(place, cached_dhcp_answer);
    return true;
}

bool open_udp(const NetworkPlace& place)
{
    network_place = place;
    // Answers to whoever had our address before do not match.
    const std::uint32_t ticks = bios_ticks();
    start_sequence(static_cast<std::uint16_t>(ticks * 7));
    port_of_ours = static_cast<std::uint16_t>(first_port + (ticks & 0x3FFF));
    UdpOpen open{};
    far_copy(far_of(open.Ip), far_of(place.ip), sizeof open.Ip);
    return service(service_udp_open, open);
}

std::uint16_t own_port()
{
    return port_of_ours;
}

bool send(const std::uint8_t (&ip)[4], std::uint16_t port, const void* datagram, unsigned size_bytes)
{
    UdpWrite write{};
    for (unsigned i = 0; i < 4; ++i) {
        write.Ip[i] = ip[i];
        write.Gateway[i] = is_elsewhere(network_place, ip) ? network_place.gateway[i] : std::uint8_t{0};
    }
    write.Own_Port.set(port_of_ours);
    write.Port.set(port);
    write.Size.set(static_cast<std::uint16_t>(size_bytes));
    write.Offset.set(offset_of(datagram));
    write.Segment.set(own_segment());
    return service(service_udp_write, write);
}

unsigned receive()
{
    UdpRead read{};
    read.To_Port.set(port_of_ours);
    read.Size.set(sizeof receive_buffer);
    read.Offset.set(offset_of(receive_buffer));
    read.Segment.set(own_segment());
    if (!service(service_udp_read, read) || read.Size.get() > sizeof receive_buffer)
        return 0;
    return read.Size.get();
}

std::uint32_t bios_ticks()
{
    return peek<std::uint32_t>(0x0040006C);
}

void copy_out(std::uint32_t linear, const void* ours, unsigned byte_count)
{
    far_copy(far_at(linear), far_of(ours), byte_count);
}

void copy_in(void* ours, std::uint32_t linear, unsigned byte_count)
{
    far_copy(far_of(ours), far_at(linear), byte_count);
}

void zero_out(std::uint32_t linear, unsigned byte_count)
{
    far_zero(far_at(linear), byte_count);
}

}  // namespace boot
