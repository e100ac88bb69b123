// SPDX-License-Identifier: MIT
// What an administrator sees in a browser, and what Prometheus collects. Nothing can be changed here.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "formats/boot_block.h"
#include "server/stream_server.h"

namespace server {

// The whole answer to the head of an HTTP request, of which the status is asked for only when it is needed.
std::string web_answer(std::string_view request, const std::function<nlohmann::json()>& status);

class WebPage {
public:
    static constexpr std::size_t request_bytes_max = 8192;

    // Throws std::system_error for an address that cannot be listened on.
    WebPage(const formats::ServerRecord& address, std::function<nlohmann::json()> status);
    formats::ServerRecord address() const { return address_; }

private:
    void serve(int client) const;

    formats::ServerRecord address_;
    const std::function<nlohmann::json()> status_;
    StreamServer server_;
};

}  // namespace server
