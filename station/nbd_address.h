// SPDX-License-Identifier: MIT
// Where clients reach the station: a Unix socket or a TCP address. Parsed from the command line.
#pragma once

#include <cstdint>
#include <string>

#include "station/unique_fd.h"

namespace station {

class NbdAddress {
public:
    // "unix:PATH", "tcp:ADDRESS:PORT" or "tcp:[IPV6]:PORT". Throws std::invalid_argument.
    static NbdAddress parse(const std::string& text);

    // A listening socket, non-blocking. A Unix socket left behind by a station that is gone is
    // replaced; one that answers, or any other file, is not. Port 0 becomes the port that the system
    // gives. Throws std::system_error or std::runtime_error.
    UniqueFd listen();
    // Removes the Unix socket that listen() made.
    void remove();

    bool is_unix() const { return unix_; }
    // The URI of an export, for clients.
    std::string uri(const std::string& export_name) const;
    // As given, with the port that is in use.
    std::string text() const;

private:
    UniqueFd listen_unix();
    UniqueFd listen_tcp();

    bool unix_ = false;
    bool made_ = false;
    std::string host_;  // or path
    std::uint16_t port_ = 0;
};

}  // namespace station
