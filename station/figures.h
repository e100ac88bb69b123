// SPDX-License-Identifier: MIT
// The station's figures, gathered from all its parts: for the table, and in the statistics file. One thread
// at a time.
#pragma once

#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/transport/udp_link.h"
#include "station/exported_luns.h"
#include "station/nbd_server.h"
#include "station/options.h"
#include "station/status_output.h"

namespace station {

class Figures {
public:
    Figures(const Options& options, machine::Machine& machine, const machine::DriverImage& driver,
            const machine::UdpLink& link, const ExportedLuns& luns, const NbdServer& server)
        : options_(options), machine_(machine), driver_(driver), link_(link), luns_(luns), server_(server)
    {
    }

    // Where the command line wants it. Throws std::system_error.
    void write();
    // A full disk must not stop the disks: told once.
    void write_or_tell();
    void show() { view_.show(now()); }
    void print_table();

    // The driver is filling its local image: there is something new to write more often.
    bool filling_local_image();

private:
    StationStatus now();
    SyncStatus synchronisation();

    const Options& options_;
    machine::Machine& machine_;
    const machine::DriverImage& driver_;
    const machine::UdpLink& link_;
    const ExportedLuns& luns_;
    const NbdServer& server_;
    Synchronisation synchronisation_;
    StatusView view_;
    bool failed_ = false;  // and told
};

}  // namespace station
