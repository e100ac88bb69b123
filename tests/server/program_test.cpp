// The program as others run it: its arguments, its files, and a workstation over a real socket.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/server/workstation_model.h"

using namespace server_test;

namespace {

std::string content_of(const std::filesystem::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct Program : testing::Test {
    Program()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qrn-server-XXXXXX").string();
        directory = mkdtemp(pattern.data());
        for (const char* name : {"a.img", "b.img"}) {
            std::ofstream(directory / name).close();
            std::filesystem::resize_file(directory / name, 1 << 20);
        }
    }
    ~Program() override
    {
        if (process > 0)
            stop(SIGKILL);
        std::filesystem::remove_all(directory);
    }

    // Runs in the directory of the images, with output and errors in files there.
    void start(std::vector<std::string> arguments)
    {
        process = fork();
        ASSERT_GE(process, 0);
        if (process != 0)
            return;
        std::vector<char*> argv = {const_cast<char*>(QRN_SERVER)};
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (chdir(directory.c_str()) == 0 && freopen("out", "w", stdout) && freopen("err", "w", stderr))
            execv(QRN_SERVER, argv.data());
        _exit(126);
    }
    int wait_for_end()
    {
        int status = 0;
        waitpid(std::exchange(process, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int stop(int signal)
    {
        kill(process, signal);
        return wait_for_end();
    }
    // The port that the program says it is ready on.
    std::uint16_t ready_port()
    {
        for (int tries = 0; tries < 1000; ++tries, usleep(10000)) {
            const std::string line = content_of(directory / "out");
            if (line.starts_with("ready ") && line.ends_with('\n'))
                return static_cast<std::uint16_t>(std::stoi(line.substr(line.find(':') + 1)));
        }
        ADD_FAILURE() << "not ready: " << content_of(directory / "err");
        return 0;
    }

    std::filesystem::path directory;
    pid_t process = 0;
};

struct Socket {
    explicit Socket(std::uint16_t port) : descriptor(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval wait{5, 0};
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        EXPECT_EQ(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Socket() { close(descriptor); }
    void send(const Bytes& packet) { EXPECT_GT(::send(descriptor, packet.data(), packet.size(), 0), 0); }
    Bytes receive()
    {
        Bytes packet(2000);
        const ssize_t size = recv(descriptor, packet.data(), packet.size(), 0);
        packet.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        return packet;
    }
    // Sends what the packet sends and takes answers until it is complete.
    void complete(Packet& packet)
    {
        for (const Bytes& bytes : packet.send())
            send(bytes);
        while (!packet.complete()) {
            const Bytes answer = receive();
            ASSERT_FALSE(answer.empty()) << "no answer for 5 seconds";
            packet.receive(answer);
        }
    }
    int descriptor;
};

TEST_F(Program, Help_tells_every_option_and_exits_0)
{
    start({"--help"});
    EXPECT_EQ(wait_for_end(), 0);
    const std::string text = content_of(directory / "out");
    for (const char* word :
         {"--listen", "--disk", "--boot-block", "--advertise", "--stats-json", "--poll-interval", "id=",
          "read_kb=", "write_kb=", "slots=", "retry_mins=", "mirror=", "delay_load", "readonly", "SIGUSR1"})
        EXPECT_NE(text.find(word), std::string::npos) << word;
}

TEST_F(Program, Wrong_arguments_get_one_line_and_status_2)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--disk", "a.img"}, "--listen"},
        {{"--listen", "127.0.0.1:0"}, "--disk"},
        {{"--listen", "127.0.0.1:0", "--disk", "a.img", "--foo"}, "--foo"},
        {{"--listen", "127.0.0.1:0", "--disk", "a.img", "b.img"}, "b.img"},
        {{"--listen", "localhost:1", "--disk", "a.img"}, "not an IPv4 address"},
        {{"--listen", "127.0.0.1", "--disk", "a.img"}, "ADDR:PORT"},
        {{"--listen", "127.0.0.1:65536", "--disk", "a.img"}, "65535"},
        {{"--listen", "0.0.0.0:0", "--disk", "a.img", "--boot-block", "bb"}, "--advertise"},
        {{"--listen", "127.0.0.1:0", "--disk", "a.img", "--disk", "a.img"}, "in use"},
        {{"--listen", "127.0.0.1:0", "--disk", "a.img,id=51520002", "--disk", "b.img"}, "same id"},
        {{"--listen", "127.0.0.1:0", "--disk", "a.img", "--boot-block", "no/such/file"}, "no/such/file"},
        {{"--listen", "127.0.0.1:0", "--disk", "missing.img"}, "missing.img: No such file"}};
    for (const auto& [arguments, reason] : cases) {
        start(arguments);
        EXPECT_EQ(wait_for_end(), 2) << reason;
        const std::string error = content_of(directory / "err");
        EXPECT_NE(error.find(reason), std::string::npos) << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }
    for (const char* option : {"read_kb=0",
                               "read_kb=17",
                               "write_kb=x",
                               "write_kb=1x",
                               "slots=9",
                               "slots=",
                               "retry_mins=256",
                               "id=515200",
                               "id=5152000g",
                               "id=00000000",
                               "id=01380000",
                               "mirror=10.0.0.1",
                               "mirror=10.0.0.1:0",
                               "mirror=0.0.0.0:5",
                               "mirror=10.0.0.1:5,id=51520001",
                               "delay_load",
                               "delay_load=1",
                               "sloots=4",
                               "=",
                               "-1"}) {
        start({"--listen", "127.0.0.1:0", "--disk", std::string("a.img,") + option});
        EXPECT_EQ(wait_for_end(), 2) << option;
        const std::string error = content_of(directory / "err");
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }
}

TEST_F(Program, Boot_block_describes_the_disks_as_a_boot_loader_would)
{
    start({"--listen", "0.0.0.0:0", "--advertise", "10.1.2.3", "--boot-block", "bb", "--disk",
           "a.img,mirror=10.9.8.7:4660,read_kb=4,write_kb=16,slots=8", "--disk",
           "b.img,delay_load,readonly,retry_mins=7,id=A1B2C3D4"});
    const std::uint16_t port = ready_port();
    EXPECT_EQ(stop(SIGTERM), 0);
    const std::string text = content_of(directory / "bb");
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
    EXPECT_EQ(at(110, 8), Bytes({0x00, 0x08, 0, 0, 0xF0, 0xF0, 0x44, 7}));
    EXPECT_EQ(at(120, 72), Bytes(72)) << "disks that do not exist";
    const Bytes self = {10, 1, 2, 3, 0, 0, 0, 0, 0, 0, high, low, 0, 0};
    EXPECT_EQ(at(216, 14), self);
    EXPECT_EQ(at(230, 14), self);
    EXPECT_EQ(at(244, 14), self);
    EXPECT_EQ(at(258, 28), Bytes(28));
    EXPECT_EQ(at(286, 14), Bytes({10, 9, 8, 7, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0}));
    EXPECT_EQ(at(300, 60), Bytes(60));
}

TEST_F(Program, Serves_over_a_socket_and_leaves_everything_in_the_image_and_the_statistics)
{
    start(
        {"--listen", "127.0.0.1:0", "--disk", "a.img", "--disk", "b.img,readonly", "--stats-json", "stats"});
    Socket socket(ready_port());
    for (std::uint16_t seq = 1; seq <= 64; ++seq) {
        Packet write = make_write((seq - 1) * 32u, 16384, seq, seq);
        socket.complete(write);
        Packet read(formats::kind_read, (seq - 1) * 32u, 16384, seq);
        socket.complete(read);
        ASSERT_EQ(read.data, write.data);
    }
    Packet hole(formats::kind_read, 0, 16384, 1);
    hole.header.Disk_Id[3] = 2;
    fill(hole.data, 1);
    socket.complete(hole);
    EXPECT_EQ(hole.data, Bytes(16384));
    socket.send(Bytes(25));
    EXPECT_EQ(stop(SIGINT), 0);

    const std::string image = content_of(directory / "a.img");
    for (std::uint16_t seq = 1; seq <= 64; ++seq) {
        const Packet write = make_write(0, 16384, seq, seq);
        ASSERT_TRUE(std::equal(write.data.begin(), write.data.end(), image.begin() + (seq - 1) * 16384,
                               [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }));
    }
    const auto stats = nlohmann::json::parse(content_of(directory / "stats"));
    EXPECT_EQ(stats["disks"][0]["writes_completed"], 64);
    // On a busy machine the client may have asked again.
    EXPECT_GE(stats["disks"][0]["read_bytes"], 1 << 20);
    EXPECT_EQ(stats["disks"][0]["flushes"], 1);
    EXPECT_EQ(stats["disks"][1]["id"], "51520002");
    EXPECT_EQ(stats["dropped"]["short_packet"], 1);
    EXPECT_GE(stats["packets"]["packets_received"], 64 * 13 + 2);
}

TEST_F(Program, Polls_a_workstation_and_limits_its_retries_on_request)
{
    start({"--listen", "127.0.0.1:0", "--disk", "a.img", "--stats-json", "stats", "--poll-interval", "1"});
    Socket socket(ready_port());
    Packet unfinished = make_write(0, 3072, 1, 1);
    socket.send(unfinished.fragment(1));
    Bytes poll = socket.receive();
    ASSERT_EQ(poll.size(), 26u);
    ASSERT_EQ(poll[1], 0x38);
    Bytes reply(226);
    std::copy_n(poll.begin(), 4, reply.begin());
    reply[0] = 2;
    std::copy_n(poll.begin() + 6, 2, reply.begin() + 4);
    reply[46] = 99;
    socket.send(reply);

    kill(process, SIGUSR1);
    Bytes limit = socket.receive();
    while (limit.size() == 26 && limit[1] == 0x38)
        limit = socket.receive();
    ASSERT_EQ(limit.size(), 26u);
    EXPECT_EQ(limit[4], 0xAA);
    EXPECT_EQ(limit[5], 0x55);
    EXPECT_EQ(stop(SIGTERM), 0);
    const auto stats = nlohmann::json::parse(content_of(directory / "stats"));
    EXPECT_EQ(stats["workstations"][0]["disks"][0]["reads"], 99);
}

}  // namespace
