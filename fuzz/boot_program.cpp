// SPDX-License-Identifier: MIT
// Everything that the boot program takes from the network: DHCP packets, answers to its boot request and to
// its packets of the block protocol.
//
// Input: packets, each a control byte, a length of 2 bytes, the bytes. The control byte says which of the
// three it is, and whether it is made to match what was asked.
#include <cstring>
#include <vector>

#include "boot/block_packet.h"
#include "boot/boot_exchange.h"
#include "boot/geometry.h"
#include "fuzz/input.h"

using namespace boot;
using namespace fuzz;

namespace {

void judge(const NetworkPlace& place, std::vector<std::uint8_t> packet, bool matching)
{
    const formats::BootRequest request = make_boot_request(place, 0x01020304);
    if (matching && packet.size() >= sizeof(formats::BootAnswer)) {
        std::memcpy(packet.data(), &request, offsetof(formats::BootRequest, Ip));
        packet[5] = static_cast<std::uint8_t>(2 + packet[5] % 2);
        packet[6] = static_cast<std::uint8_t>(packet.size() >> 8);
        packet[7] = static_cast<std::uint8_t>(packet.size());
    }
    formats::BootAnswer answer{};
    const Verdict verdict =
        judge_answer(packet.data(), static_cast<unsigned>(packet.size()), request, answer);
    if (verdict == Verdict::foreign)
        return;
    require(std::memchr(answer.Text, 0, sizeof answer.Text) != nullptr, "a text for the screen ends");
    if (verdict != Verdict::accepted)
        return;
    complete_servers(answer.Param, place);
    for (unsigned lun = 0; lun < answer.Param.Lun_Nums; ++lun) {
        const DiskPlace disk = make_disk_place(answer.Param, lun);
        require(disk.read_sectors_max >= 2 && disk.read_sectors_max <= 32, "a packet holds 1 to 16 KB");
        require(disk.write_sectors_max >= 2 && disk.write_sectors_max <= 32, "a packet holds 1 to 16 KB");
    }
}

void land(BlockPacket& packet, std::vector<std::uint8_t> datagram, bool matching)
{
    const unsigned length = packet.request(false).Length.get();
    if (matching && datagram.size() >= formats::request_bytes) {
        const std::uint8_t kind = datagram[5];
        std::memcpy(datagram.data(), &packet.request(false), formats::match_offset + formats::match_bytes);
        datagram[5] = kind;
    }
    const Landing landing = packet.take(datagram.data(), static_cast<unsigned>(datagram.size()));
    if (landing.has_data) {
        require(landing.offset + landing.size <= length, "no fragment lands behind its packet");
        require(formats::header_bytes + landing.size <= datagram.size(),
                "no fragment is longer than its datagram");
    }
    require(!landing.has_data || landing.is_ours, "what is foreign has no data");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    NetworkPlace place{};
    DiskPlace disk{};
    BlockPacket packet;
    packet.begin(disk, size % 2 == 0, 8, 1 + static_cast<unsigned>(size) % 32, 7);
    while (size >= 3) {
        const std::uint8_t control = data[0];
        const std::size_t length = std::min<std::size_t>(data[1] | data[2] << 8, size - 3);
        const std::vector<std::uint8_t> bytes(data + 3, data + 3 + length);
        data += 3 + length;
        size -= 3 + length;
        const bool matching = (control & 0x80) != 0;
        switch (control % 4) {
        case 0:
            take_dhcp_packet(place, bytes.data(), static_cast<unsigned>(bytes.size()));
            require(is_zero(place.server) ? place.server_port == 0 : true, "a port has an address");
            break;
        case 1:
            judge(place, bytes, matching);
            break;
        case 2:
            land(packet, bytes, matching);
            break;
        default:
            if (bytes.size() == 512) {
                const Geometry geometry =
                    geometry_of(static_cast<std::uint32_t>(bytes[0]) << 24, bytes.data());
                require(geometry.heads >= 1 && geometry.heads <= 255 && geometry.sectors >= 1 &&
                            geometry.sectors <= 63 && geometry.cylinders >= 1 && geometry.cylinders <= 1024,
                        "a geometry fits a BIOS call");
            }
        }
    }
    return 0;
}
