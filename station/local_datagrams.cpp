// SPDX-License-Identifier: MIT
#include "station/local_datagrams.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <span>
#include <system_error>

#include "formats/socket_address.h"
#include "station/first_sector.h"

namespace station {

using namespace formats;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int tries = 4;
constexpr auto answer_time = 250ms;
constexpr auto status_time = 200ms;

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

StatusPoll::StatusPoll(std::uint16_t driver_port)
{
    ServerRecord driver{{127, 0, 0, 1}, {}, {}, {}};
    driver.Port.set(driver_port);
    socket_ = connected_socket(driver);
    sockaddr_in address;
    socklen_t size = sizeof address;
    if (!socket_ || getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::system_error(errno, std::generic_category(), "status poll");
    self_ = record_of(address);
}

std::optional<PollReply> StatusPoll::ask()
{
    PollRequest poll{};
    std::memcpy(poll.Mark, poll_mark, sizeof poll.Mark);
    poll.Cookie_6[0] = ++number_;
    poll.Poller = self_;
    // The driver takes no packet shorter than a request.
    std::array<std::uint8_t, request_bytes> packet{};
    std::memcpy(packet.data(), &poll, sizeof poll);
    send(socket_.get(), packet.data(), packet.size(), 0);

    std::array<std::uint8_t, sizeof(PollReply) + 1> buffer;
    for (const auto deadline = Clock::now() + status_time; Clock::now() < deadline;) {
        const auto answer = receive_until(socket_.get(), deadline, buffer);
        PollReply reply;
        if (answer.size() != sizeof reply)
            continue;
        std::memcpy(&reply, answer.data(), sizeof reply);
        if (std::memcmp(&reply.Mark, poll_reply_mark, sizeof poll_reply_mark) == 0 &&
            reply.Cookie[0] == number_)
            return reply;
    }
    return {};
}

}  // namespace station
