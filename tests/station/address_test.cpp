// SPDX-License-Identifier: MIT
#include "station/nbd_address.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/scratch_folder.h"

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

    const ScratchFolder folder;
    const std::string path = folder / "socket";
};

}  // namespace

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
