// SPDX-License-Identifier: MIT
// The program as others run it: its arguments, its files, and a workstation over a real socket.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "formats/image_area.h"
#include "tests/program.h"
#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

struct Program : ProgramTest {
    Program() : ProgramTest(QRN_SERVER)
    {
        for (const char* name : {"a.img", "b.img"}) {
            std::ofstream(folder / name).close();
            std::filesystem::resize_file(folder / name, 1 << 20);
        }
    }
    // The port that the program says it is ready on.
    std::uint16_t ready_port() const
    {
        const std::string line = ready_line();
        return static_cast<std::uint16_t>(std::stoi(line.substr(line.find(':') + 1)));
    }
};

TEST_F(Program, Wrong_arguments_get_one_line_and_status_2)
{
    const std::string a = "--listen 127.0.0.1:0 --disk a.img";
    std::vector<std::pair<std::string, std::string>> cases = {
        {"--disk a.img", "--listen"},
        {"--listen 127.0.0.1:0", "--disk"},
        {"--lisen 127.0.0.1:0 --disk a.img", "--lisen"},
        {a + " b.img", "b.img"},
        {"--listen localhost:1 --disk a.img", "not an IPv4 address"},
        {"--listen 127.0.0.1:65536 --disk a.img", "65535"},
        {"--listen 0.0.0.0:0 --disk a.img --boot-block bb", "--advertise"},
        {a + " --disk a.img", "in use"},
        {a + ",id=51520002 --disk b.img", "same id"},
        {a + " --boot-block no/such/file", "no/such/file"},
        {a + " --allow 10.0.0.0/33", "'10.0.0.0/33' is no network"},
        {"--config missing.toml", "missing.toml: No such file"},
        {"--config a.toml --disk a.img", "--disk"},
        {"--listen 127.0.0.1:0 --disk missing.img", "missing.img: No such file"}};
    std::istringstream options(
        "read_kb=0 read_kb=17 write_kb=1x slots=9 slots= retry_mins=256 id=515200 id=5152000g id=00000000 "
        "id=01380000 id=51524e42 mirror=10.0.0.1 mirror=10.0.0.1:0 mirror=0.0.0.0:5 "
        "mirror=10.0.0.1:5,id=51520001 "
        "delay_load delay_load=1 image image= cache_mb=0 cache_mb=65536 cache_mb sloots=4 = -1");
    for (std::string option; options >> option;)
        cases.emplace_back(a + "," + option, "");
    for (const auto& [arguments, reason] : cases)
        expect_failure(arguments, 2, reason);
}

TEST_F(Program, Only_a_whole_image_area_of_the_same_disk_is_served)
{
    formats::ImageHeader good{};
    formats::set_new_image(good, (1 << 20) / 512);
    good.Used.set(64);
    const auto write_area = [&](formats::ImageHeader header, bool with_checksum = true) {
        if (with_checksum)
            header.ChkSum.set(formats::image_checksum(&header));
        std::ofstream(folder / "area").write(reinterpret_cast<const char*>(&header), sizeof header);
        std::filesystem::resize_file(folder / "area", 64 * 512);
    };
    const std::string with_area = "--listen 127.0.0.1:0 --disk a.img,image=area";
    formats::ImageHeader other_size = good, longer = good;
    other_size.Size.set(2047);
    longer.Used.set(65);
    expect_failure(with_area, 2, "area: No such file");
    expect_failure("--listen 127.0.0.1:0 --disk a.img,image=b.img", 2, "b.img: is no image area");
    write_area(good, false);
    expect_failure(with_area, 2, "damaged");
    write_area(other_size);
    expect_failure(with_area, 2, "2047 sectors");
    write_area(longer);
    expect_failure(with_area, 2, "cut short");
    write_area(good);
    start(with_area + " --stats-json stats");
    ready_port();
    EXPECT_EQ(stop(SIGTERM), 0) << content_of("err");
    EXPECT_EQ(nlohmann::json::parse(content_of("stats"))["disks"][0]["image"], "area");
}

TEST_F(Program, Boot_block_describes_the_disks_as_a_boot_loader_would)
{
    start("--listen 0.0.0.0:0 --advertise 10.1.2.3 --boot-block bb "
          "--disk a.img,mirror=10.9.8.7:4660,read_kb=4,write_kb=16,slots=8 "
          "--disk b.img,delay_load,readonly,retry_mins=7,cache_mb=65535,id=A1B2C3D4");
    const std::uint16_t port = ready_port();
    EXPECT_EQ(stop(SIGTERM), 0);
    const std::string text = content_of("bb");
    ASSERT_EQ(text.size(), 360u);
    const Bytes block(text.begin(), text.end());
    const auto at = [&](std::size_t offset, std::size_t size) {
        const auto begin = block.begin() + static_cast<std::ptrdiff_t>(offset);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(size));
    };
    const auto low = static_cast<std::uint8_t>(port), high = static_cast<std::uint8_t>(port >> 8);
    EXPECT_EQ(at(0, 8), Bytes({0, 0, 0, 0, 2, 0, 2, 0x10}));
    EXPECT_EQ(at(20, 4), Bytes(4)) << "a load mark";
    EXPECT_EQ(at(32, 2), Bytes({low, high}));
    EXPECT_EQ(at(46, 2), Bytes({0x05, 0x07}));
    EXPECT_EQ(at(54, 4), Bytes({0x51, 0x52, 0x10, 0x01}));
    EXPECT_EQ(at(74, 8), Bytes({0x00, 0x08, 0, 0, 0x30, 0xF0, 0x08, 0}));
    EXPECT_EQ(at(90, 4), Bytes({0xA1, 0xB2, 0xC3, 0xD4}));
    EXPECT_EQ(at(110, 8), Bytes({0x00, 0x08, 0, 0, 0xF0, 0xF0, 0x54, 7}));
    EXPECT_EQ(at(120, 72), Bytes(72)) << "disks that do not exist";
    const Bytes self = {10, 1, 2, 3, 0, 0, 0, 0, 0, 0, high, low, 0, 0};
    EXPECT_EQ(at(216, 14), self);
    EXPECT_EQ(at(230, 14), self);
    EXPECT_EQ(at(244, 14), self);
    EXPECT_EQ(at(258, 28), Bytes(28));
    EXPECT_EQ(at(286, 14), Bytes({10, 9, 8, 7, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0}));
    EXPECT_EQ(at(300, 60), Bytes(60));
}

TEST_F(Program, Polls_a_workstation_and_limits_its_retries_on_request)
{
    start("--listen 127.0.0.1:0 --disk a.img --stats-json stats --poll-interval 1");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(ready_port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int workstation = socket(AF_INET, SOCK_DGRAM, 0);
    const timeval wait{5, 0};
    setsockopt(workstation, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ASSERT_EQ(connect(workstation, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto receive = [&] {
        Bytes packet(2000);
        packet.resize(static_cast<std::size_t>(
            std::max<ssize_t>(recv(workstation, packet.data(), packet.size(), 0), 0)));
        return packet;
    };
    const Bytes unfinished = make_write(0, 3072, 1, 1).fragment(1);
    send(workstation, unfinished.data(), unfinished.size(), 0);
    const Bytes poll = receive();
    ASSERT_EQ(poll.size(), 26u);
    Bytes reply(226);
    std::copy_n(poll.begin(), 4, reply.begin());
    reply[0] = 2;
    std::copy_n(poll.begin() + 6, 2, reply.begin() + 4);
    reply[46] = 99;
    send(workstation, reply.data(), reply.size(), 0);

    kill(process, SIGUSR1);
    Bytes limit = receive();
    while (limit.size() == 26 && limit[1] == 0x38)
        limit = receive();
    close(workstation);
    ASSERT_EQ(limit.size(), 26u);
    EXPECT_EQ(limit[4], 0xAA);
    EXPECT_EQ(limit[5], 0x55);
    EXPECT_EQ(stop(SIGTERM), 0);
    const auto stats = nlohmann::json::parse(content_of("stats"));
    EXPECT_EQ(stats["workstations"][0]["disks"][0]["reads"], 99);
}

struct Client {
    explicit Client(std::uint16_t port) : socket(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval wait{5, 0};
        setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(socket); }
    void send(const Bytes& packet) const { ::send(socket, packet.data(), packet.size(), 0); }
    // The kind of the answer to a packet that gets one; what came before it was not answered.
    unsigned kind_of_answer(const Bytes& packet) const
    {
        send(packet);
        Bytes answer(2000);
        return recv(socket, answer.data(), answer.size(), 0) >= 26 ? answer[5] : 0u;
    }
    const int socket;
};

TEST_F(Program, A_disk_that_may_not_grow_is_told_once_and_the_others_are_served)
{
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{65536, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    start("--listen 127.0.0.1:0 --disk a.img --stats-json stats");
    setrlimit(RLIMIT_FSIZE, &before);
    const Client client(ready_port());
    for (std::uint16_t seq = 1; seq <= 5; ++seq) {
        Packet beyond = make_write(1000, 512, seq, seq);
        client.send(beyond.fragment(1));
        client.send(beyond.request(true));
    }
    EXPECT_EQ(client.kind_of_answer(make_write(0, 512, 9, 9).fragment(1)), formats::kind_write_done);
    EXPECT_EQ(stop(SIGTERM), 0);
    const std::string told = content_of("err");
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
    EXPECT_NE(told.find("a.img: cannot write for 127.0.0.1:"), told.npos) << told;
    EXPECT_NE(told.find("File too large (errno 27)"), told.npos) << told;
    EXPECT_EQ(nlohmann::json::parse(content_of("stats"))["disks"][0]["store_errors"], 5);
}

TEST_F(Program, Statistics_that_cannot_be_written_are_told_once_and_serving_goes_on)
{
    std::filesystem::create_directory(folder / "gone");
    start("--listen 127.0.0.1:0 --disk a.img --stats-json gone/stats");
    const Client client(ready_port());
    std::filesystem::remove_all(folder / "gone");
    for (int tries = 0; tries < 2000 && content_of("err").empty(); ++tries)
        usleep(5000);
    EXPECT_EQ(client.kind_of_answer(make_write(0, 512, 1, 1).fragment(1)), formats::kind_write_done);
    EXPECT_EQ(stop(SIGHUP), 0) << "the end of a session is an end like others";
    const std::string told = content_of("err");
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
    EXPECT_NE(told.find("gone/stats"), told.npos) << told;
    EXPECT_NE(content_of("out").find("1 writes"), std::string::npos) << "the summary";
}

TEST_F(Program, Links_and_what_is_no_file_are_written_through)
{
    std::filesystem::create_directory(folder / "elsewhere");
    for (const char* name : {"stats", "bb"}) {
        std::ofstream(folder / "elsewhere/" + name) << "old";
        std::filesystem::create_symlink(std::string("elsewhere/") + name, folder / name);
    }
    start("--listen 127.0.0.1:0 --disk a.img --stats-json stats --boot-block bb");
    ready_port();
    EXPECT_EQ(stop(SIGTERM), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "stats") && std::filesystem::is_symlink(folder / "bb"));
    EXPECT_EQ(content_of("elsewhere/bb").size(), 360u);
    EXPECT_TRUE(nlohmann::json::parse(content_of("elsewhere/stats")).contains("disks"));

    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const int pipe = open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK);
    start("--listen 127.0.0.1:0 --disk a.img --boot-block pipe");
    ready_port();
    EXPECT_EQ(stop(SIGTERM), 0);
    char block[1000];
    EXPECT_EQ(read(pipe, block, sizeof block), 360);
    close(pipe);
    EXPECT_TRUE(std::filesystem::is_fifo(folder / "pipe"));
}

TEST_F(Program, Only_the_networks_that_are_allowed_are_heard)
{
    start("--listen 127.0.0.1:0 --allow 127.0.0.2 --allow 10.0.0.0/8 --disk a.img --stats-json stats");
    {
        const Client client(ready_port());
        client.send(make_write(0, 512, 1, 1).fragment(1));
        client.send(make_write(0, 512, 2, 2).fragment(1));
        const auto heard = [&] {
            return nlohmann::json::parse(content_of("stats"))["dropped"]["stranger"] == 2;
        };
        for (int tries = 0; tries < 2000 && !heard(); ++tries)
            usleep(5000);
    }
    EXPECT_EQ(stop(SIGTERM), 0);
    const auto stats = nlohmann::json::parse(content_of("stats"));
    EXPECT_EQ(stats["dropped"]["stranger"], 2);
    EXPECT_EQ(stats["packets"]["packets_sent"], 0);
    const std::string told = content_of("err");
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
}

TEST_F(Program, Version_is_printed)
{
    EXPECT_EQ(run("--version"), 0);
    EXPECT_TRUE(content_of("out").starts_with("qrn-server " QRN_VERSION "\n")) << content_of("out");
}

}  // namespace
