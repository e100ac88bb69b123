// SPDX-License-Identifier: MIT
// Accepts connections on a socket and serves each in a thread of its own, a bounded number at a time. The
// thread ends when the client leaves or the server ends: then every socket is shut down.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <string>
#include <thread>

namespace server {

class StreamServer {
public:
    static constexpr unsigned clients_max = 32;

    // Takes over the listening socket. `serve` gets a client's, which stays the server's.
    StreamServer(int listening, std::function<void(int client)> serve);
    ~StreamServer();
    StreamServer(const StreamServer&) = delete;
    StreamServer& operator=(const StreamServer&) = delete;

private:
    struct Client {
        int socket;
        std::thread thread;
        std::atomic<bool> ended{false};
    };
    void accept_all();

    const int listening_;
    const std::function<void(int)> serve_;
    std::list<Client> clients_;  // of the accepting thread
    std::thread thread_;
};

// False: the client is gone.
bool send_all(int socket, const std::string& text);

}  // namespace server
