// SPDX-License-Identifier: MIT
#include "server/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace server {

namespace {

bool somebody_listens(const sockaddr_un& address)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return answered;
}

int listen_at(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": is too long for a socket's path");
    std::memcpy(address.sun_path, path.data(), path.size());
    struct stat status;
    if (stat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode))
            throw std::runtime_error(path + ": is there and no socket");
        if (somebody_listens(address))
            throw std::runtime_error(path + ": is in use by another server");
        unlink(path.c_str());
    }
    const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const mode_t before = umask(0117);  // owner and group
    const bool bound =
        file >= 0 && bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    umask(before);
    if (!bound || listen(file, 16) != 0) {
        const int error = errno;
        close(file);
        throw std::system_error(error, std::generic_category(), path);
    }
    return file;
}

}  // namespace

ControlSocket::ControlSocket(const std::string& path, Answer answer)
    : path_(path), answer_(std::move(answer)), server_(listen_at(path), [this](int client) { serve(client); })
{
}

ControlSocket::~ControlSocket()
{
    unlink(path_.c_str());
}

void ControlSocket::serve(int client) const
{
    std::string gathered;
    char buffer[4096];
    while (gathered.size() <= line_bytes_max) {
        const ssize_t count = recv(client, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        gathered.append(buffer, static_cast<std::size_t>(count));
        for (std::size_t end; (end = gathered.find('\n')) != gathered.npos; gathered.erase(0, end + 1))
            if (!send_all(client, answer_(gathered.substr(0, end)) + "\n"))
                return;
    }
}

}  // namespace server
