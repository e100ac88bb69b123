// SPDX-License-Identifier: MIT
// What the station makes of the driver's messages.
#include <gtest/gtest.h>

#include <thread>

#include "station/driver_messages.h"

using namespace station;
using Server = LunStatistics::Server;

namespace {

const std::string time_out_lun_2 = "\nQRN SCSI: Time Out: 03 2 5C00 00000801    17-00 0000000F Retrys:58 59";
const std::string time_out_lun_0 = "\nQRN SCSI: Time Out: 00 0 5E00 00000001     1-02 FFFFFFFF Retrys:-1 -1";
const std::string main_lost = "\nQRN SCSI: Main Server Error, Try Use Slave";
const std::string slave_lost = "\nQRN SCSI: Slave Server Error";

}  // namespace

TEST(DriverMessages, Time_outs_are_counted_for_the_lun_that_they_name)
{
    AllLunStatistics luns;
    follow_driver_message(time_out_lun_2, luns);
    follow_driver_message(time_out_lun_2, luns);
    follow_driver_message(time_out_lun_0, luns);
    follow_driver_message("\nQRN SCSI: Time End: 03 2 5C00, 0 1", luns);
    follow_driver_message("\nQRN SCSI: Time Out: 00 4 5C00 00000001", luns);  // no such LUN
    EXPECT_EQ(luns[0].time_outs, 1u);
    EXPECT_EQ(luns[1].time_outs, 0u);
    EXPECT_EQ(luns[2].time_outs, 2u);
}

TEST(DriverMessages, Change_of_servers_belongs_to_the_time_out_before_it_in_the_same_thread)
{
    AllLunStatistics luns;
    follow_driver_message(time_out_lun_2, luns);
    std::thread([&] { follow_driver_message(time_out_lun_0, luns); }).join();
    follow_driver_message(main_lost, luns);
    EXPECT_EQ(luns[2].server, Server::slave);
    EXPECT_EQ(luns[0].server, Server::main);
    std::thread([&] {
        follow_driver_message(slave_lost, luns);  // nothing before it: nobody's
        follow_driver_message(time_out_lun_0, luns);
        follow_driver_message(slave_lost, luns);
    }).join();
    EXPECT_EQ(luns[0].server, Server::main_alone);
    EXPECT_EQ(luns[2].server, Server::slave);
}
