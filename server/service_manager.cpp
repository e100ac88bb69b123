// SPDX-License-Identifier: MIT
#include "server/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace server {

void tell_service_manager(const std::string& state)
{
    const char* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = path ? std::strlen(path) : 0;
    if (length == 0 || length >= sizeof address.sun_path)
        return;
    std::memcpy(address.sun_path, path, length);
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';  // a name of the kernel's and no file
    const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (file < 0)
        return;
    sendto(file, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(file);
}

std::uint64_t watchdog_ms()
{
    const char* const us = std::getenv("WATCHDOG_USEC");
    const char* const process = std::getenv("WATCHDOG_PID");
    if (!us || (process && std::strtol(process, nullptr, 10) != getpid()))
        return 0;
    return std::strtoull(us, nullptr, 10) / 1000;
}

}  // namespace server
