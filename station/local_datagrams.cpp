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

namespace station {

using namespace formats;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int tries = 4;
constexpr auto answer_time = 250ms;
constexpr auto status_time = 200ms;

// A socket that exchanges packets with one peer only; an empty one when there is no way to it.
UniqueFd connected_socket(const ServerRecord& peer)
{
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = socket_address(peer);
    if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return UniqueFd();
    return fd;
}

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

WireHeader first_sector_request(const Boot_Param& block)
{
    WireHeader request{};
    std::memcpy(request.Disk_Id, block.Disks[0].Disk_Id, sizeof request.Disk_Id);
    std::memcpy(request.Disk_Parm, block.Disks[0].Disk_Parm, sizeof request.Disk_Parm);
    request.Kind = kind_read;
    request.Tag.set(static_cast<std::uint16_t>((sector_bytes >> 8) ^ block.Tag_Key.get()));
    request.Byte_Offset.set(sector_bytes);  // engine sector 1
    request.Length.set(sector_bytes);
    return request;
}

std::optional<Sector> sector_of_answer(const WireHeader& request, std::span<const std::uint8_t> packet)
{
    WireHeader answer;
    if (packet.size() < sizeof answer)
        return {};
    std::memcpy(&answer, packet.data(), sizeof answer);
    if (std::memcmp(answer.Disk_Id, request.Disk_Id, sizeof answer.Disk_Id) != 0 ||
        std::memcmp(&answer.Tag, &request.Tag, match_bytes) != 0 || answer.Kind != kind_read_data ||
        answer.Sub_Code != sub_request)
        return {};
    Sector sector{};
    if (answer.Frag_Cnt.get() == 0)
        return sector;
    if (answer.Frag_Off.get() != 0 || packet.size() != sizeof answer + sector.size())
        return {};
    std::copy_n(packet.begin() + sizeof answer, sector.size(), sector.begin());
    return sector;
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
    const WireHeader request = first_sector_request(block);
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
