// What the station makes of the driver's messages, and of its own figures.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "station/driver_messages.h"
#include "station/message_log.h"
#include "station/status_output.h"
#include "tests/station/scratch_folder.h"

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

TEST(MessageLog, Every_message_is_one_line_with_a_time)
{
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1'700'000'000'042)};
    const auto text_of = [&](const std::string& message) { return log_line(time, message).substr(24); };
    EXPECT_EQ(text_of("\nQRN SCSI: HwResetBus"), "QRN SCSI: HwResetBus\n");
    EXPECT_EQ(text_of("\nQRN SCSI: BusChangeDetected For Delay Load\n"),
              "QRN SCSI: BusChangeDetected For Delay Load\n");
    EXPECT_EQ(text_of("\nserver says: \x1b[2J\nfoo"), "server says:  [2J foo\n");
    EXPECT_EQ(text_of("\n"), "\n");
    EXPECT_EQ(log_line(time, "x").substr(19, 5), ".042 ");
}

TEST(StationStatus, File_is_replaced_whole_and_holds_the_figures)
{
    AllLunStatistics luns;
    luns[1].reads = 12;
    luns[1].sectors_written = std::uint64_t{1} << 40;
    luns[1].time_outs = 3;
    luns[1].server = Server::slave;
    StationStatus status;
    status.driver = "builtin";
    status.luns = {{1, 4096, &luns[1]}};
    status.link.packets_sent = 99;
    status.connections.open = 2;

    const station_test::ScratchFolder folder;
    const std::string path = folder / "stats.json";
    write_statistics_file(path, status);
    luns[1].reads = 13;
    write_statistics_file(path, status);
    const auto json = nlohmann::json::parse(std::ifstream(path));

    EXPECT_EQ(json["luns"][0]["lun"], 1);
    EXPECT_EQ(json["luns"][0]["reads"], 13);
    EXPECT_EQ(json["luns"][0]["sectors_written"], std::uint64_t{1} << 40);
    EXPECT_EQ(json["luns"][0]["time_outs"], 3);
    EXPECT_EQ(json["luns"][0]["server"], "slave");
    EXPECT_EQ(json["link"]["packets_sent"], 99);
    EXPECT_EQ(json["connections"]["open"], 2);
    EXPECT_THROW(write_statistics_file("/nonexistent/stats.json", status), std::system_error);
}
