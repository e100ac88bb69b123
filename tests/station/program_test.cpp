// SPDX-License-Identifier: MIT
// The program as others run it, without a server: what it says and returns when it cannot work, and
// that it starts and stops when no server answers.
#include <nlohmann/json.hpp>

#include "formats/boot_block.h"
#include "tests/program.h"

namespace {

constexpr std::uint32_t disk_sectors = 8192;

struct Program : ProgramTest {
    Program() : ProgramTest(QRN_STATION)
    {
        write_block([](formats::Boot_Param&) {});
    }
    // One disk of a server at an address where nobody listens.
    template <typename Change>
    void write_block(Change change) const
    {
        formats::Boot_Param block{};
        block.Lun_Nums = block.Disk_Nums = 1;
        block.Main_Server[0] = {{127, 0, 0, 1}, {}, {}, {}};
        block.Main_Server[0].Port.set(9);
        block.Disks[0].Disk_Id[0] = 0x51;
        block.Disks[0].Disk_Secs.set(disk_sectors);
        change(block);
        std::ofstream(folder / "block", std::ios::binary)
            .write(reinterpret_cast<const char*>(&block), sizeof block);
    }

    const std::string block = "--boot-block " + (folder / "block");
    const std::string socket = folder / "socket";
    const std::string ordinary = block + " --nbd unix:" + socket;
};

}  // namespace

TEST_F(Program, Argument_that_cannot_be_used_ends_it_with_one_line_and_status_2)
{
    expect_failure("", 2, "--boot-block");
    expect_failure("--boot-blok " + (folder / "block"), 2, "--boot-blok");
    expect_failure("--boot-block " + (folder / "missing"), 2, "missing");
    expect_failure(block + " --driver " + (folder / "missing.sys"), 2, "missing.sys");
    expect_failure(block + " --driver " + (folder / "block"), 2, "--driver");
    expect_failure(block + " --nbd unix:" + (folder / "block"), 2, "--nbd");
    expect_failure(ordinary + " --local-disk " + (folder / "missing"), 2, "--local-disk");
    expect_failure(ordinary + " --local-disk " + (folder / "block"), 2, "no partition table");
    expect_failure(ordinary + " --log /nonexistent/log", 2, "--log");
    expect_failure(ordinary + " --stats-json /nonexistent/s", 2, "--stats-json");
}

TEST_F(Program, Driver_that_does_not_load_or_shows_no_disk_ends_it_with_status_1)
{
    write_block([](formats::Boot_Param& param) { param.Load_Mark.set(formats::load_mark_refuse); });
    expect_failure(ordinary, 1, "refuses to load");
    write_block([](formats::Boot_Param& param) { param.Lun_Nums = param.Disk_Nums = 0; });
    expect_failure(ordinary, 1, "no disk");
    expect_failure(ordinary + " --handover transport", 1, "no disk");
}

TEST_F(Program, Station_of_a_silent_server_starts_and_a_signal_shuts_the_disks_down)
{
    const std::pair<std::string, int> ways[] = {{"low-memory", SIGTERM}, {"transport", SIGINT}};
    for (const auto& [handover, signal] : ways) {
        SCOPED_TRACE(handover);
        start(ordinary + " --memory 64,above4g=64 --reg PAE_SIZE=64 --handover " + handover + " --log " +
              (folder / "log") + " --stats-json " + (folder / "stats"));
        EXPECT_EQ(ready_line(), "ready nbd+unix:///lun0?socket=" + socket);
        EXPECT_EQ(stop(signal), 0) << content_of("err");
        EXPECT_EQ(access(socket.c_str(), F_OK), -1) << "the socket is gone";
        EXPECT_NE(content_of("log").find(" QRN SCSI: SRB_FUNCTION_SHUTDOWN:0\n"), std::string::npos);
        EXPECT_NE(content_of("out").find("\nlun0: server 127.0.0.1:9 has not answered yet\n"),
                  std::string::npos)
            << content_of("out");
        const auto statistics = nlohmann::json::parse(content_of("stats"));
        EXPECT_EQ(statistics["luns"][0]["sectors"], disk_sectors);
        std::filesystem::remove(folder / "log");
    }
}

TEST_F(Program, Disks_that_show_at_a_later_bus_scan_are_waited_for)
{
    write_block([](formats::Boot_Param& param) { param.Boot_Mode.set(3); });
    start(ordinary);
    EXPECT_EQ(ready_line(), "ready nbd+unix:///lun0?socket=" + socket);
    EXPECT_EQ(stop(SIGTERM), 0);
}

TEST_F(Program, Messages_carry_the_journals_level_when_that_is_where_they_go)
{
    // The shell starts it in the folder, with "err" as its standard error.
    const std::string inode = "$(stat -L -c %d:%i /proc/self/fd/2)";
    for (const auto& [stream, begin] : {std::pair{inode, "<3>one of --boot-block"},
                                        std::pair{"1:" + inode, "qrn-station: one of --boot-block"}}) {
        std::ofstream(folder / "start") << "JOURNAL_STREAM=" + stream + " exec " QRN_STATION "\n";
        const std::string line = "cd '" + folder / "" + "' && sh start >out 2>err";
        EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), 2);
        EXPECT_TRUE(content_of("err").starts_with(begin)) << content_of("err");
    }
}

TEST_F(Program, Version_is_printed)
{
    EXPECT_EQ(run("--version"), 0);
    EXPECT_TRUE(content_of("out").starts_with("qrn-station " QRN_VERSION "\n")) << content_of("out");
}
