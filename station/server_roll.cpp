// SPDX-License-Identifier: MIT
#include "station/server_roll.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include <fmt/format.h>

#include "station/first_sector.h"

namespace station {

using namespace formats;
using Clock = std::chrono::steady_clock;

void ServerRoll::add_disk(unsigned lun)
{
    add(lun, "server", block_.Main_Server[lun]);
    add(lun, "slave server", block_.Slave_Server[lun]);
}

void ServerRoll::add(unsigned lun, const char* role, const ServerRecord& server)
{
    if (!server.names_a_server())
        return;
    const auto& ip = server.Ip;
    entries_.push_back(
        {fmt::format("lun{}: {} {}.{}.{}.{}:{}", lun, role, ip[0], ip[1], ip[2], ip[3], server.Port.get()),
         connected_socket(server), first_sector_request(block_, lun)});
}

std::vector<std::string> ServerRoll::ask(std::chrono::milliseconds patience)
{
    for (Entry& each : entries_)
        each.awaited = !each.answered && each.socket &&
                       send(each.socket.get(), &each.request, request_bytes, 0) == request_bytes;
    std::vector<std::string> lines;
    const auto deadline = Clock::now() + patience;
    for (;;) {
        std::vector<pollfd> polled;
        std::vector<Entry*> asked;
        for (Entry& each : entries_)
            if (each.awaited) {
                polled.push_back({each.socket.get(), POLLIN, 0});
                asked.push_back(&each);
            }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (polled.empty() || poll(polled.data(), polled.size(),
                                   static_cast<int>(std::max<std::int64_t>(left.count(), 0))) <= 0)
            return lines;
        for (std::size_t i = 0; i < asked.size(); ++i)
            if (polled[i].revents && answer_came(*asked[i]))
                lines.push_back(asked[i]->name + " has answered");
    }
}

// An error is word from the host, or one on the way, that nobody is there.
bool ServerRoll::answer_came(Entry& entry)
{
    std::array<std::uint8_t, sizeof(WireHeader) + sector_bytes + 1> packet;
    const ssize_t bytes = recv(entry.socket.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (bytes < 0) {
        entry.awaited = errno == EAGAIN || errno == EINTR;
        return false;
    }
    const auto received = std::span<const std::uint8_t>(packet).first(static_cast<std::size_t>(bytes));
    if (!sector_of_answer(entry.request, received))
        return false;
    entry.awaited = false;
    entry.answered = true;
    entry.socket = UniqueFd();
    return true;
}

std::vector<std::string> ServerRoll::silent() const
{
    std::vector<std::string> lines;
    for (const Entry& each : entries_)
        if (!each.answered)
            lines.push_back(each.name + " has not answered yet");
    return lines;
}

}  // namespace station
