// SPDX-License-Identifier: MIT
#include "station/local_datagrams.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <span>

#include "formats/socket_address.h"
#include "station/first_sector.h"

namespace station {

using namespace formats;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int tries = 4;
constexpr auto answer_time = 250ms;

// The next packet until the deadline; empty when none came.
template <std::size_t size>
std::span<const std::uint8_t> receive_until(int socket, Clock::time_point deadline,
                                            std::array<std::uint8_t, size>& buffer)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd ready{socket, POLLIN, 0};
    if (left <= 0ms || poll(&ready, 1, static_cast<int>(left.count())) <= 0)
        return {};
    // What cannot be delivered is told as an error; the deadline is waited for all the same.
    const ssize_t bytes = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return std::span<const std::uint8_t>(buffer).first(static_cast<std::size_t>(std::max<ssize_t>(bytes, 0)));
}

std::optional<Sector> ask_server(const ServerRecord& server, const WireHeader& request)
{
    const UniqueFd fd = connected_socket(server);
    std::array<std::uint8_t, sizeof(WireHeader) + sector_bytes + 1> buffer;
    for (int i = 0; fd && i < tries; ++i) {
        send(fd.get(), &request, request_bytes, 0);
        for (const auto deadline = Clock::now() + answer_time; Clock::now() < deadline;)
            if (const auto sector = sector_of_answer(request, receive_until(fd.get(), deadline, buffer)))
                return sector;
    }
    return {};
}

}  // namespace

std::optional<Sector> first_sector_of_server(const Boot_Param& block)
{
    const WireHeader request = first_sector_request(block, 0);
    constexpr std::uint8_t no_id[4] = {};
    if (std::memcmp(request.Disk_Id, no_id, sizeof no_id) == 0)
        return {};
    for (const ServerRecord& server : {block.Main_Server[0], block.Slave_Server[0]})
        if (server.names_a_server())
            if (const auto sector = ask_server(server, request))
                return sector;
    return {};
}

}  // namespace station
