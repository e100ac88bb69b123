// SPDX-License-Identifier: MIT
#include "server/stream_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>

namespace server {

// Signals are for the thread that waits for them; threads that this one starts inherit that.
StreamServer::StreamServer(int listening, std::function<void(int client)> serve)
    : listening_(listening), serve_(std::move(serve))
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { accept_all(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

StreamServer::~StreamServer()
{
    shutdown(listening_, SHUT_RDWR);
    thread_.join();
    close(listening_);
}

void StreamServer::accept_all()
{
    for (;;) {
        const int socket = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0 && (errno == EINTR || errno == ECONNABORTED))
            continue;
        if (socket < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
            usleep(100'000);
            continue;
        }
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
        client.thread = std::thread([this, &client] {
            serve_(client.socket);
            shutdown(client.socket, SHUT_RDWR);
            client.ended = true;
        });
    }
    for (Client& client : clients_) {
        shutdown(client.socket, SHUT_RDWR);
        client.thread.join();
        close(client.socket);
    }
}

bool send_all(int socket, const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t sent = send(socket, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        at += static_cast<std::size_t>(sent);
    }
    return true;
}

}  // namespace server
