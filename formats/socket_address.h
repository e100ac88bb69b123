// SPDX-License-Identifier: MIT
// Server records as addresses of sockets, for the programs that have real ones.
#pragma once

#include <netinet/in.h>

#include <cstring>

#include "formats/boot_block.h"

namespace formats {

inline sockaddr_in socket_address(const ServerRecord& record)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, record.Ip, sizeof record.Ip);
    address.sin_port = htons(record.Port.get());
    return address;
}

// Hardware and Zero bytes are 0.
inline ServerRecord record_of(const sockaddr_in& address)
{
    ServerRecord record{};
    std::memcpy(record.Ip, &address.sin_addr, sizeof record.Ip);
    record.Port.set(ntohs(address.sin_port));
    return record;
}

}  // namespace formats
