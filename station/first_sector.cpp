// SPDX-License-Identifier: MIT
#include "station/first_sector.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "formats/socket_address.h"

namespace station {

using namespace formats;

UniqueFd connected_socket(const ServerRecord& peer)
{
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = socket_address(peer);
    if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return UniqueFd();
    return fd;
}

WireHeader first_sector_request(const Boot_Param& block, unsigned disk)
{
    WireHeader request{};
    std::memcpy(request.Disk_Id, block.Disks[disk].Disk_Id, sizeof request.Disk_Id);
    std::memcpy(request.Disk_Parm, block.Disks[disk].Disk_Parm, sizeof request.Disk_Parm);
    request.Kind = kind_read;
    request.Tag.set(static_cast<std::uint16_t>((sector_bytes >> 8) ^ block.Tag_Key.get()));
    request.Byte_Offset.set(sector_bytes);  // engine sector 1
    request.Length.set(sector_bytes);
    return request;
}

std::optional<Sector> sector_of_answer(const WireHeader& request, std::span<const std::uint8_t> packet)
{
    WireHeader answer;
    if (packet.size() < sizeof answer)
        return {};
    std::memcpy(&answer, packet.data(), sizeof answer);
    if (std::memcmp(answer.Disk_Id, request.Disk_Id, sizeof answer.Disk_Id) != 0 ||
        std::memcmp(&answer.Tag, &request.Tag, match_bytes) != 0 || answer.Kind != kind_read_data ||
        answer.Sub_Code != sub_request)
        return {};
    Sector sector{};
    if (answer.Frag_Cnt.get() == 0)
        return sector;
    if (answer.Frag_Off.get() != 0 || packet.size() != sizeof answer + sector.size())
        return {};
    std::copy_n(packet.begin() + sizeof answer, sector.size(), sector.begin());
    return sector;
}

}  // namespace station
