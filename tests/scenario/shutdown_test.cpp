// SPDX-License-Identifier: MIT
// What servers are told when the workstation goes down, and when the SRB of the shutdown completes.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/scenario/traffic.h"

namespace scenario {
namespace {

Bytes notice(unsigned lun, bool mirrored)
{
    auto id = disk_id(lun, mirrored);
    return {id[0], id[1], id[2], id[3], 0x00, 0xA4, 0,    0,
            0,     0,     0,     0,     0xA0, 0xA1, 0xA2, static_cast<std::uint8_t>(lun),
            0,     0,     0,     0,     0,    0,    0,    0,
            0,     2};
}

std::string name_of(const formats::ServerRecord& server)
{
    std::string name;
    for (unsigned byte : server.Ip)
        name += std::to_string(byte) + ".";
    return name + ":" + std::to_string(server.Port.get());
}

class Shutdown {
public:
    Shutdown(Rig& rig, unsigned lun) : request_(rig.scsi())
    {
        request_.function = SRB_FUNCTION_SHUTDOWN;
        request_.lun = static_cast<std::uint8_t>(lun);
        request_.done = [this](machine::ScsiRequest&) { done_ = true; };
        rig.scsi().submit(request_);
    }
    bool done() const { return done_; }
    bool ok() const { return done_ && request_.ok(); }

private:
    machine::ScsiRequest request_;
    bool done_ = false;
};

// Servers that got the notice of this LUN, in order, once it is known to be all right.
std::vector<std::string> told(Rig& rig, unsigned lun, bool mirrored)
{
    std::vector<std::string> servers;
    for (const SeenPacket& packet : rig.packets()) {
        EXPECT_EQ(packet.bytes, notice(lun, mirrored));
        servers.push_back(name_of(packet.server));
    }
    return servers;
}

const std::string main_server = name_of(server_address(0));
const std::string slave_server = name_of(server_address(1));

// The boot server is told on the port of the main server.
const std::string boot_server = name_of(machine::simulated_address(9, 6000));

TEST(ShutdownNotice, Goes_once_to_every_server_of_the_disk)
{
    struct Row {
        unsigned lun;
        bool mirrored, slave_known;
        bool own_boot_server;  // at host 9
        std::vector<std::string> servers;
    };
    for (const Row& row :
         {Row{1, false, false, true, {main_server}}, Row{1, false, true, true, {main_server}},
          Row{1, true, true, true, {main_server, slave_server}}, Row{1, true, false, true, {main_server}},
          Row{0, false, false, false, {main_server}}, Row{0, false, false, true, {main_server, boot_server}},
          Row{0, true, true, true, {main_server, slave_server, boot_server}}}) {
        Plan plan;
        plan.disks.assign(2, {.mirrored = row.mirrored});
        plan.adjust_block = [&](formats::Boot_Param& block) {
            for (formats::ServerRecord& slave : block.Slave_Server)
                slave = row.slave_known ? server_address(1) : formats::ServerRecord{};
            if (row.own_boot_server)
                block.Boot_Server = machine::simulated_address(9, 7777);
        };
        Rig rig(plan);
        rig.run([&] {
            for (int time = 0; time < 2; ++time) {
                rig.forget_packets();
                Shutdown shutdown(rig, row.lun);
                EXPECT_TRUE(row.lun == 0 || shutdown.done());
                rig.machine.sleep_ms(10);
                EXPECT_TRUE(shutdown.ok());
                EXPECT_EQ(told(rig, row.lun, row.mirrored), row.servers);
            }
        });
        EXPECT_EQ(rig.printed("\nQRN SCSI: SRB_FUNCTION_SHUTDOWN:" + std::to_string(row.lun)), 2u);
        EXPECT_EQ(rig.printed("\nQRN_RW_HDD_Stop"), row.lun == 0 ? 2u : 0u);
    }
}

TEST(ShutdownOrder, Tells_each_disk_and_lets_the_first_one_end_last)
{
    Rig rig({.disks = std::vector<DiskPlan>(3)});
    rig.run([&] {
        rig.scsi().shutdown();
        EXPECT_EQ(rig.sent(formats::sub_request, formats::kind_shutdown).size(), 3u);
        EXPECT_TRUE(rig.packets().back().header().Disk_Parm[3] == 0);
        rig.machine.sleep_ms(10);
        for (unsigned disk = 0; disk < 3; ++disk)
            EXPECT_EQ(rig.main.protocol().counters(disk).shutdowns, 1u);
        // The disks still work.
        Bytes data = pattern(9, 4096);
        EXPECT_TRUE(rig.write(2, 9, data));
    });
}

TEST(ShutdownOrder, First_disk_waits_for_a_worker)
{
    Rig rig({.disks = {{.flags = 0x01}}, .settings = {{"RW_THREADS", 1}}});
    rig.run([&] {
        rig.main.stop();
        Pending read(rig);
        read.read(0, 0, 4096);
        rig.machine.sleep_ms(10);
        Shutdown shutdown(rig, 0);
        rig.machine.sleep_ms(50);
        EXPECT_FALSE(shutdown.done());
        EXPECT_EQ(rig.printed("\nQRN SCSI: SRB_FUNCTION_SHUTDOWN:0"), 1u);
        EXPECT_FALSE(rig.logged("QRN_RW_HDD_Stop"));
        rig.main.start();
        rig.machine.sleep_ms(2000);
        EXPECT_TRUE(read.ok());
        EXPECT_TRUE(shutdown.ok());
        EXPECT_EQ(rig.printed("\nQRN_RW_HDD_Stop"), 1u);
    });
}

TEST(ShutdownOrder, Of_a_LUN_that_cannot_exist_completes_and_tells_nobody)
{
    Rig rig;
    rig.run([&] {
        for (unsigned lun : {4u, 255u}) {
            EXPECT_TRUE(Shutdown(rig, lun).ok());
        }
        EXPECT_TRUE(rig.packets().empty());
    });
}

}  // namespace
}  // namespace scenario
