// SPDX-License-Identifier: MIT
// What the station asks servers, over real sockets on loopback.
#include "station/local_datagrams.h"

#include <future>

#include "formats/wire.h"

#include "tests/transport/plain_peer.h"

using namespace station;
using namespace formats;

namespace {

Packet sector_answer(Packet packet, std::uint8_t content, bool zeros = false)
{
    packet[5] = kind_read_data;
    packet.resize(header_bytes + (zeros ? 0 : sector_bytes), content);
    std::memset(&packet[26], 0, 8);
    packet[33] = zeros ? 0 : 1;
    return packet;
}

auto ask_for_first_sector(const ServerRecord& main, const ServerRecord& slave = {})
{
    Boot_Param block{};
    block.Disks[0].Disk_Id[0] = 0x51;
    block.Tag_Key.set(0x12345678);
    block.Main_Server[0] = main;
    block.Slave_Server[0] = slave;
    return std::async(std::launch::async, first_sector_of_server, block);
}

}  // namespace

TEST(FirstSector, Is_asked_for_again_and_taken_from_its_own_answer_only)
{
    PlainPeer server;
    auto sector = ask_for_first_sector(server.record);
    server.receive();
    const Packet request = server.receive();
    ASSERT_EQ(request.size(), 26u);
    EXPECT_EQ(request[22] << 8 | request[23], 512) << "engine sector 1";
    Packet other_disk = sector_answer(request, 1), late = sector_answer(request, 2),
           cut = sector_answer(request, 3);
    ++other_disk[0];
    ++late[8];
    cut.pop_back();
    for (const Packet& each : {other_disk, late, cut, Packet(10), sector_answer(request, 4)})
        server.answer(each);
    EXPECT_EQ(sector.get().value_or(Sector{})[511], 4);
}

TEST(FirstSector, Comes_from_the_slave_when_the_main_server_is_silent)
{
    PlainPeer silent, slave;
    auto sector = ask_for_first_sector(silent.record, slave.record);
    slave.answer(sector_answer(slave.receive(), 9, true));
    EXPECT_EQ(sector.get(), Sector{}) << "a hole";
    EXPECT_FALSE(first_sector_of_server(Boot_Param{})) << "no server at all";
}
