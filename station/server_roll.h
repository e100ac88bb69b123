// SPDX-License-Identifier: MIT
// Which servers have answered: every server of the disks is asked for a sector, beside the driver and from a
// socket of its own, until it has answered once. Used by the machine's main thread.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "formats/boot_block.h"
#include "formats/wire.h"
#include "station/unique_fd.h"

namespace station {

class ServerRoll {
public:
    explicit ServerRoll(const formats::Boot_Param& block) : block_(block) {}

    // The main server of this disk, and its slave when it has one.
    void add_disk(unsigned lun);

    // Asks those that have not answered yet, and takes what comes within this time; returns sooner when
    // nobody is left to be waited for. One line for each that has answered now.
    std::vector<std::string> ask(std::chrono::milliseconds patience);
    // One line for each that has not answered.
    std::vector<std::string> silent() const;

private:
    struct Entry {
        std::string name;  // "lun0: server 192.0.2.1:8520"
        UniqueFd socket;   // empty: there is no way to the server
        formats::WireHeader request;
        bool answered = false;
        bool awaited = false;  // asked, and nothing has come back, nor word that nobody is there
    };

    void add(unsigned lun, const char* role, const formats::ServerRecord& server);
    bool answer_came(Entry& entry);

    formats::Boot_Param block_;
    std::vector<Entry> entries_;
};

}  // namespace station
