// SPDX-License-Identifier: MIT
// What the station makes of the driver's messages.
#include <gtest/gtest.h>

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
    DriverMessages messages(luns);
    const int thread = 0;
    for (const std::string& text :
         {time_out_lun_2, time_out_lun_2, time_out_lun_0, std::string("\nQRN SCSI: Time End: 03 2 5C00, 0 1"),
          std::string("\nQRN SCSI: Time Out: 00 4 5C00 00000001")})  // the last one: no such LUN
        messages.follow(text, &thread);
    messages.follow(main_lost, &thread);
    EXPECT_EQ(luns[0].time_outs, 1u);
    EXPECT_EQ(luns[1].time_outs, 0u);
    EXPECT_EQ(luns[2].time_outs, 2u);
    for (const LunStatistics& lun : luns)
        EXPECT_EQ(lun.server, Server::main);
}

TEST(DriverMessages, Change_of_servers_belongs_to_the_time_out_before_it_in_the_same_thread)
{
    AllLunStatistics luns;
    DriverMessages messages(luns);
    const int one = 0, other = 0, third = 0;
    messages.follow(time_out_lun_2, &one);
    messages.follow(time_out_lun_0, &other);
    messages.follow(main_lost, &one);
    EXPECT_EQ(luns[2].server, Server::slave);
    EXPECT_EQ(luns[0].server, Server::main);
    messages.follow(slave_lost, &third);  // nothing before it: nobody's
    messages.follow(time_out_lun_0, &third);
    messages.follow(slave_lost, &third);
    EXPECT_EQ(luns[0].server, Server::main_alone);
    EXPECT_EQ(luns[2].server, Server::slave);
}
