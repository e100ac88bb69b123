// SPDX-License-Identifier: MIT
// What the port and class drivers ask for while a start runs, beside the clients' reads and writes: bus
// resets, a start of the adapter anew, scans, and transfers without a buffer.
#pragma once

#include <cstdint>

#include "campaign/workstation.h"

namespace campaign {

class PortEvents {
public:
    explicit PortEvents(Workstation& station) : station_(station) {}

    // Brings the plan's events about from now on, in a thread of its own.
    void start();
    // All are over, and nothing holds requests back any more.
    void wait();

private:
    void bring_about();
    void begin(PortEventKind kind);
    void send_without_buffer();

    Workstation& station_;
    bool running_ = false;
};

}  // namespace campaign
