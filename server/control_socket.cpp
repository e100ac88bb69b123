// SPDX-License-Identifier: MIT
#include "server/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace server {

namespace {

[[noreturn]] void fail(const std::string& path)
{
    throw std::system_error(errno, std::generic_category(), path);
}

bool somebody_listens(const sockaddr_un& address)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return answered;
}

bool send_all(int socket, const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t sent = send(socket, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (sent <= 0 && errno != EINTR)
            return false;
        at += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
    }
    return true;
}

}  // namespace

ControlSocket::ControlSocket(const std::string& path, Answer answer) : path_(path), answer_(std::move(answer))
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
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const mode_t before = umask(0117);  // owner and group
    const bool bound =
        socket_ >= 0 && bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    umask(before);
    if (!bound || listen(socket_, 16) != 0) {
        const int error = errno;
        close(socket_);
        errno = error;
        fail(path);
    }
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    thread_ = std::thread([this] { accept_all(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

ControlSocket::~ControlSocket()
{
    shutdown(socket_, SHUT_RDWR);
    thread_.join();
    close(socket_);
    unlink(path_.c_str());
}

void ControlSocket::accept_all()
{
    for (;;) {
        const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0 && (errno == EINTR || errno == ECONNABORTED || errno == EMFILE))
            continue;
        if (socket < 0)
            break;
        clients_.remove_if([](Client& client) {
            if (!client.ended)
                return false;
            client.thread.join();
            close(client.socket);
            return true;
        });
        if (clients_.size() >= clients_max) {
            close(socket);
            continue;
        }
        Client& client = clients_.emplace_back();
        client.socket = socket;
        client.thread = std::thread([this, &client] { serve(client); });
    }
    for (Client& client : clients_) {
        shutdown(client.socket, SHUT_RDWR);
        client.thread.join();
        close(client.socket);
    }
}

void ControlSocket::serve(Client& client)
{
    std::string gathered;
    char buffer[4096];
    for (;;) {
        const ssize_t count = recv(client.socket, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        gathered.append(buffer, static_cast<std::size_t>(count));
        bool good = true;
        for (std::size_t end; good && (end = gathered.find('\n')) != gathered.npos;
             gathered.erase(0, end + 1))
            good = send_all(client.socket, answer_(gathered.substr(0, end)) + "\n");
        if (!good || gathered.size() > line_bytes_max)
            break;
    }
    shutdown(client.socket, SHUT_RDWR);
    client.ended = true;
}

}  // namespace server
