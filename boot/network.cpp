// SPDX-License-Identifier: MIT
#include "boot/network.h"

#include "boot/screen.h"

namespace boot {

std::uint8_t receive_buffer[datagram_bytes_max];

namespace {

using formats::Be16;
using formats::Le16;
using formats::sector_bytes;

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
std::uint8_t send_buffer[formats::header_bytes + formats::fragment_bytes_max];
DiskPlace disks[formats::disk_count_max];
formats::ServerRecord slaves[formats::disk_count_max];
std::uint16_t sequence;
constinit PacketSize packet_size;
bool silence_told;

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

// Since when nobody answers, and what was told of it.
class Silence {
public:
    void tell(const formats::ServerRecord& server)
    {
        const unsigned seconds = ticks_since(begin_) / ticks_per_second;
        if (seconds < next_line_s_)
            return;
        next_line_s_ = seconds + first_line_s;
        silence_told = true;
        print("\rqrnboot: server ");
        print_place(server.Ip, server.Port.get());
        print(" silent since ");
        print_number(seconds);
        print(" s, still trying ");
    }
    void end()
    {
        begin_ = bios_ticks();
        next_line_s_ = first_line_s;
        if (silence_told)
            print("\nqrnboot: the server is back\n");
        silence_told = false;
    }
    std::uint32_t ticks() const { return ticks_since(begin_); }

private:
    static constexpr unsigned first_line_s = 5;
    std::uint32_t begin_ = bios_ticks();
    unsigned next_line_s_ = first_line_s;
};

void send_header(const formats::ServerRecord& server, const formats::WireHeader& header)
{
    send(server.Ip, server.Port.get(), &header, formats::request_bytes);
}

void send_fragments(const formats::ServerRecord& server, BlockPacket& packet, std::uint32_t linear)
{
    for (unsigned i = 0; i < packet.fragments(); ++i) {
        if (!packet.is_outstanding(i))
            continue;
        const formats::WireHeader& header = packet.fragment(i);
        far_copy(far_of(send_buffer), far_of(&header), sizeof header);
        far_copy(far_of(send_buffer + sizeof header), far_at(linear + header.Frag_Off.get()),
                 header.Frag_Size.get());
        send(server.Ip, server.Port.get(), send_buffer,
             static_cast<unsigned>(sizeof header) + header.Frag_Size.get());
    }
}

// One packet until it is complete. False: nobody answered for too long.
bool exchange(const formats::ServerRecord& server, const DiskPlace& disk, BlockPacket& packet,
              Direction direction, std::uint32_t linear, bool for_ever, bool& was_resent)
{
    const bool write = direction == Direction::write;
    Silence silence;
    unsigned resends = 0;
    bool query_next = disk.answers_queries;
    if (write)
        send_fragments(server, packet, linear);
    else
        send_header(server, packet.request(false));
    for (std::uint32_t last = bios_ticks(); !packet.is_complete();) {
        const unsigned size = receive();
        const Landing landing = size != 0 ? packet.take(receive_buffer, size) : Landing{};
        if (landing.is_zeros)
            far_zero(far_at(linear), packet.request(false).Length.get());
        if (landing.has_data)
            far_copy(far_at(linear + landing.offset), far_of(receive_buffer + formats::header_bytes),
                     landing.size);
        if (landing.is_ours) {
            last = bios_ticks();
            resends = 0;
            silence.end();
        }
        if (landing.wants_resend)
            send_fragments(server, packet, linear);
        if (size == 0)
            silence.tell(server);
        if (size != 0 || ticks_since(last) < wait_ticks(resends))
            continue;
        if (!for_ever && disk.retry_minutes != 0 &&
            silence.ticks() > disk.retry_minutes * 60u * ticks_per_second)
            return false;
        was_resent = true;
        ++resends;
        if (query_next || !write) {
            send_header(server, packet.request(query_next));
        } else {
            packet.resend_all();
            send_fragments(server, packet, linear);
        }
        query_next = disk.answers_queries && !query_next;
        last = bios_ticks();
    }
    return true;
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
    sequence = static_cast<std::uint16_t>(ticks * 7);
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

bool transfer(unsigned lun, Direction direction, std::uint32_t lba, unsigned sectors, std::uint32_t linear)
{
    static BlockPacket packet;
    const DiskPlace& disk = disks[lun];
    const bool write = direction == Direction::write;
    const bool mirrored =
        write && (disk.id[2] & formats::disk_id_mirror) != 0 && slaves[lun].names_a_server();
    while (sectors != 0) {
        unsigned count = packet_size.sectors(write ? disk.write_sectors_max : disk.read_sectors_max);
        if (count > sectors)
            count = sectors;
        ++sequence;
        bool was_resent = false;
        packet.begin(disk, write, lba, count, sequence);
        if (!exchange(disk.server, disk, packet, direction, linear, lun == 0 && !write, was_resent))
            return false;
        if (mirrored) {
            packet.begin(disk, write, lba, count, static_cast<std::uint16_t>(~sequence));
            if (!exchange(slaves[lun], disk, packet, direction, linear, false, was_resent))
                return false;
        }
        packet_size.packet_done(was_resent);
        lba += count;
        sectors -= count;
        linear += count * sector_bytes;
    }
    return true;
}

void set_disk(unsigned lun, const DiskPlace& disk, const formats::ServerRecord& slave)
{
    disks[lun] = disk;
    slaves[lun] = slave;
}

const DiskPlace& disk(unsigned lun)
{
    return disks[lun];
}

}  // namespace boot
