// SPDX-License-Identifier: MIT
// The administrator's way in: a Unix socket on which each line is a command, a JSON object, and each answer a
// line too. Who may open the socket may do everything. Threads of its own, one for each client.
#pragma once

#include <functional>
#include <string>

#include "server/stream_server.h"

namespace server {

class ControlSocket {
public:
    using Answer = std::function<std::string(const std::string& line)>;
    static constexpr std::size_t line_bytes_max = 65536;

    // Replaces a socket that nobody listens on. Throws std::system_error or std::runtime_error with the path.
    ControlSocket(const std::string& path, Answer answer);
    ~ControlSocket();

private:
    void serve(int client) const;

    const std::string path_;
    const Answer answer_;
    StreamServer server_;
};

}  // namespace server
