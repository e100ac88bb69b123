// SPDX-License-Identifier: MIT
// What is said of servers, with real sockets on loopback.
#include "station/server_roll.h"

#include <future>

#include "tests/transport/plain_peer.h"

using namespace station;
using namespace formats;
using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

Packet sector_answer(Packet packet)
{
    packet.resize(header_bytes + sector_bytes);
    packet[5] = kind_read_data;
    std::memset(&packet[26], 0, 8);
    packet[33] = 1;
    return packet;
}

std::string at(const PlainPeer& peer)
{
    return "127.0.0.1:" + std::to_string(peer.record.Port.get());
}

}  // namespace

TEST(ServerRoll, Says_once_of_every_server_of_a_disk_that_it_has_answered)
{
    PlainPeer main, slave;
    Boot_Param block{};
    block.Disks[2].Disk_Id[0] = 0x51;
    block.Main_Server[2] = main.record;
    block.Slave_Server[2] = slave.record;
    ServerRoll roll(block);
    roll.add_disk(0);  // has no server
    roll.add_disk(2);
    const Lines both = {"lun2: server " + at(main) + " has not answered yet",
                        "lun2: slave server " + at(slave) + " has not answered yet"};
    EXPECT_EQ(roll.silent(), both);

    auto asked = std::async(std::launch::async, [&] { return roll.ask(100ms); });
    Packet other_disk = sector_answer(main.receive());
    EXPECT_EQ(other_disk[0], 0x51);
    ++other_disk[0];
    main.answer(other_disk);
    slave.answer(sector_answer(slave.receive()));
    EXPECT_EQ(asked.get(), Lines{"lun2: slave server " + at(slave) + " has answered"});
    EXPECT_EQ(roll.silent(), Lines{both[0]});

    asked = std::async(std::launch::async, [&] { return roll.ask(20s); });
    main.answer(sector_answer(main.receive()));
    EXPECT_EQ(asked.get(), Lines{"lun2: server " + at(main) + " has answered"});
    EXPECT_EQ(roll.ask(20s), Lines{}) << "nobody is left to be asked";
    EXPECT_TRUE(slave.receive(false).empty()) << "one that has answered is left alone";
    EXPECT_EQ(roll.silent(), Lines{});
}

TEST(ServerRoll, A_port_where_nobody_listens_is_not_waited_for)
{
    Boot_Param block{};
    {
        const PlainPeer gone;
        block.Main_Server[0] = gone.record;
    }
    ServerRoll roll(block);
    roll.add_disk(0);
    EXPECT_EQ(roll.ask(20s), Lines{});
    EXPECT_EQ(roll.silent().size(), 1u);
}
