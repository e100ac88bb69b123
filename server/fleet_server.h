// SPDX-License-Identifier: MIT
// qrn-server with a configuration file: the fleet, its sockets and threads, until a signal ends it.
#pragma once

#include <string>

namespace server {

// Returns the exit status: 0, or 1 when something could not be written back. Throws what keeps it from
// starting.
int run_fleet_server(const std::string& config_path);

}  // namespace server
