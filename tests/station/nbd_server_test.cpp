// SPDX-License-Identifier: MIT
#include "station/nbd_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/scratch_folder.h"
#include "tests/station/memory_device.h"
#include "tests/station/nbd_client_bytes.h"

using namespace station;
using namespace station_test;
using namespace std::chrono_literals;

namespace {

class Server : public testing::Test {
protected:
    void SetUp() override
    {
        exports.set({{"lun0", "test disk", device}});
        server.emplace(NbdAddress::parse("unix:" + path), exports);
    }

    UniqueFd connected() const
    {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        const timeval patience{20, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    static std::size_t received(const UniqueFd& fd, std::size_t count)
    {
        Bytes bytes(count);
        return static_cast<std::size_t>(recv(fd.get(), bytes.data(), count, MSG_WAITALL));
    }
    // Chooses the disk and asks for one sector.
    static void ask(const UniqueFd& fd)
    {
        const Bytes bytes = Writer().u32(3).add(option(1)).add(request(0, 1, 0, 512));
        EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    static constexpr std::size_t greeting_bytes = 18, export_bytes = 10, reply_bytes = 16 + 512;

    const ScratchFolder folder;
    const std::string path = folder / "socket";
    std::shared_ptr<MemoryDevice> device = std::make_shared<MemoryDevice>(32 << 20);
    Exports exports;
    std::optional<NbdServer> server;
};

}  // namespace

TEST_F(Server, Client_beyond_the_limit_is_refused_and_place_comes_free_again)
{
    server->start();
    std::vector<UniqueFd> clients;
    for (unsigned i = 0; i < NbdServer::connections_max; ++i) {
        clients.push_back(connected());
        ASSERT_EQ(received(clients.back(), greeting_bytes), greeting_bytes);
    }
    EXPECT_EQ(received(connected(), greeting_bytes), 0u);
    EXPECT_EQ(server->counters().open, NbdServer::connections_max);
    EXPECT_EQ(server->counters().refused, 1u);

    clients.pop_back();
    bool served = false;
    for (int tries = 0; tries < 20'000 && !served; ++tries) {  // until its place is cleared
        const UniqueFd next = connected();
        served = received(next, greeting_bytes) == greeting_bytes;
        std::this_thread::sleep_for(served ? 0ms : 1ms);
    }
    EXPECT_TRUE(served);
}

// Address space of the whole process: what stacks and buffers reserve counts, whether used or not.
TEST_F(Server, Clients_that_ask_for_much_and_send_little_cost_little)
{
    const auto reserved_mb = [] {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
            if (line.starts_with("VmSize:"))
                return std::stoul(line.substr(7)) / 1024;
        return 0ul;
    };
    server->start();
    const auto before_mb = reserved_mb();
    std::vector<UniqueFd> clients;
    for (unsigned i = 0; i < NbdServer::connections_max; ++i) {
        clients.push_back(connected());
        const Bytes bytes = Writer().u32(3).add(option(1)).add(request(1, 1, 0, 32 << 20)).add(Bytes(512));
        EXPECT_EQ(send(clients.back().get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        ASSERT_EQ(received(clients.back(), greeting_bytes + export_bytes), greeting_bytes + export_bytes);
    }
    EXPECT_LT(reserved_mb() - before_mb, 600u);
}

TEST_F(Server, Stop_lets_transfers_end_and_says_when_they_do_not)
{
    server->start();
    device->hold(true);
    const UniqueFd idle = connected(), busy = connected();
    ask(busy);
    device->wait_until_held(1);
    EXPECT_FALSE(server->stop(20ms));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(received(idle, greeting_bytes + 1), greeting_bytes);
    EXPECT_EQ(server->counters().open, 1u);
    device->finish(0);
    EXPECT_TRUE(server->stop(20'000ms));
    EXPECT_EQ(server->counters().open, 0u);
}
