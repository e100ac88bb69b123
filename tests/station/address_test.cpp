#include "station/nbd_address.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/station/scratch_folder.h"

using station::NbdAddress;
using station::UniqueFd;

namespace {

class SocketPath : public testing::Test {
protected:
    bool connects() const
    {
        const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    const station_test::ScratchFolder folder;
    const std::string path = folder / "socket";
};

}  // namespace

TEST(NbdAddress, Uris_are_what_clients_take)
{
    EXPECT_EQ(NbdAddress::parse("unix:/run/qrn.sock").uri("lun0"), "nbd+unix:///lun0?socket=/run/qrn.sock");
    EXPECT_EQ(NbdAddress::parse("unix:/a b&c").uri("lun0"), "nbd+unix:///lun0?socket=/a%20b%26c");
    EXPECT_EQ(NbdAddress::parse("tcp:127.0.0.1:10809").uri("lun3"), "nbd://127.0.0.1:10809/lun3");
    EXPECT_EQ(NbdAddress::parse("tcp:[::1]:1").uri("lun1"), "nbd://[::1]:1/lun1");
}

TEST(NbdAddress, What_cannot_be_listened_on_is_refused)
{
    for (const std::string text :
         {"", "unix:", "tcp:", "tcp:127.0.0.1", "tcp:127.0.0.1:", "tcp:127.0.0.1:65536", "tcp:127.0.0.1:1x",
          "tcp:127.0.0.1:-1", "tcp::1", "tcp:host:1", "tcp:1.2.3:4", "udp:127.0.0.1:1", "127.0.0.1:1"})
        EXPECT_THROW(NbdAddress::parse(text), std::invalid_argument) << text;
    EXPECT_THROW(NbdAddress::parse("unix:/" + std::string(107, 'x')), std::invalid_argument);
    EXPECT_NO_THROW(NbdAddress::parse("unix:/" + std::string(106, 'x')));
}

TEST(NbdAddress, Port_0_becomes_the_port_in_use)
{
    auto address = NbdAddress::parse("tcp:127.0.0.1:0");
    const UniqueFd listener = address.listen();
    EXPECT_NE(address.text(), "tcp:127.0.0.1:0");
    auto same = NbdAddress::parse(address.text());
    EXPECT_THROW(same.listen(), std::system_error);
}

TEST_F(SocketPath, Stale_unix_socket_is_replaced_and_a_live_one_is_not)
{
    auto first = NbdAddress::parse("unix:" + path);
    auto second = NbdAddress::parse("unix:" + path);
    {
        const UniqueFd listener = first.listen();
        EXPECT_TRUE(connects());
        EXPECT_THROW(second.listen(), std::runtime_error);
        EXPECT_TRUE(connects());
    }
    const UniqueFd listener = second.listen();
    EXPECT_TRUE(connects());
    second.remove();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SocketPath, Other_file_in_the_place_is_left_alone)
{
    std::ofstream(path) << "precious";
    auto address = NbdAddress::parse("unix:" + path);
    EXPECT_THROW(address.listen(), std::runtime_error);
    address.remove();
    EXPECT_EQ(std::filesystem::file_size(path), 8u);
}
