// The program as others run it, without a server: what it says and returns when it cannot work, and
// that it starts and stops when no server answers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <utility>

#include "formats/boot_block.h"
#include "tests/station/scratch_folder.h"

using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t disk_sectors = 8192;

class Program : public testing::Test {
protected:
    void SetUp() override
    {
        write_block([](formats::Boot_Param&) {});
    }
    void TearDown() override
    {
        if (process > 0) {
            kill(process, SIGKILL);
            wait_for_end();
        }
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

    void start(const std::string& arguments)
    {
        std::filesystem::remove(folder / "out");
        const std::string line =
            "exec " QRN_STATION " " + arguments + " >" + (folder / "out") + " 2>" + (folder / "err");
        process = fork();
        ASSERT_GE(process, 0);
        if (process == 0)
            _exit(execl("/bin/sh", "sh", "-c", line.c_str(), nullptr));
    }
    int wait_for_end()
    {
        int status = 0;
        waitpid(std::exchange(process, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::string content_of(const std::string& name) const
    {
        std::ostringstream text;
        text << std::ifstream(folder / name).rdbuf();
        return text.str();
    }
    // The first line of the output, once it is there.
    std::string ready_line() const
    {
        for (const auto end = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < end;
             std::this_thread::sleep_for(5ms)) {
            const std::string text = content_of("out");
            if (const auto at = text.find('\n'); at != std::string::npos)
                return text.substr(0, at);
        }
        return "not ready: " + content_of("err");
    }
    void expect_failure(const std::string& arguments, int status, const std::string& reason)
    {
        SCOPED_TRACE(reason);
        start(arguments);
        EXPECT_EQ(wait_for_end(), status);
        const std::string errors = content_of("err");
        EXPECT_NE(errors.find(reason), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(content_of("out"), "");
    }

    const station_test::ScratchFolder folder;
    const std::string block = "--boot-block " + (folder / "block");
    const std::string socket = folder / "socket";
    const std::string ordinary = block + " --nbd unix:" + socket;
    pid_t process = 0;
};

}  // namespace

TEST_F(Program, Argument_that_cannot_be_used_ends_it_with_one_line_and_status_2)
{
    expect_failure("", 2, "--boot-block");
    expect_failure(block + " --nonsense", 2, "--nonsense");
    expect_failure("--boot-block " + (folder / "missing"), 2, "missing");
    expect_failure(block + " --driver " + (folder / "missing.sys"), 2, "missing.sys");
    expect_failure(block + " --driver " + (folder / "block"), 2, "--driver");
    expect_failure(block + " --nbd unix:" + (folder / "block"), 2, "--nbd");
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
        start(ordinary + " --memory 64,above4g=64 --handover " + handover + " --log " + (folder / "log") +
              " --stats-json " + (folder / "stats"));
        EXPECT_EQ(ready_line(), "ready nbd+unix:///lun0?socket=" + socket);
        kill(process, signal);
        EXPECT_EQ(wait_for_end(), 0) << content_of("err");
        EXPECT_EQ(access(socket.c_str(), F_OK), -1) << "the socket is gone";
        EXPECT_NE(content_of("log").find(" QRN SCSI: SRB_FUNCTION_SHUTDOWN:0\n"), std::string::npos);
        EXPECT_NE(content_of("out").find("lun0"), std::string::npos);
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
    kill(process, SIGTERM);
    EXPECT_EQ(wait_for_end(), 0);
}
