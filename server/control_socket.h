// SPDX-License-Identifier: MIT
// The administrator's way in: a Unix socket on which each line is a command, a JSON object, and each answer a
// line too. Who may open the socket may do everything. Threads of its own, one for each client.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace server {

class ControlSocket {
public:
    using Answer = std::function<std::string(const std::string& line)>;
    static constexpr std::size_t line_bytes_max = 65536;
    static constexpr unsigned clients_max = 32;

    // Replaces a socket that nobody listens on. Throws std::system_error or std::runtime_error with the path.
    ControlSocket(const std::string& path, Answer answer);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

private:
    struct Client {
        std::thread thread;
        std::atomic<bool> ended{false};
        int socket;
    };
    void accept_all();
    void serve(Client& client);

    std::string path_;
    Answer answer_;
    int socket_ = -1;
    std::list<Client> clients_;
    std::thread thread_;
};

}  // namespace server
