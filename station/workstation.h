// SPDX-License-Identifier: MIT
// The workstation's life, from power-on to power-off: a machine on the real scheduler with UDP beneath, the
// driver booted in it, and its LUNs exported. Made and run once, by main; what it started stands until the
// process ends.
#pragma once

#include <memory>
#include <optional>

#include "machine/transport/packet_capture.h"
#include "machine/transport/udp_link.h"
#include "station/boot_loader.h"
#include "station/exported_luns.h"
#include "station/figures.h"
#include "station/message_log.h"
#include "station/nbd_server.h"
#include "station/options.h"
#include "station/server_roll.h"
#include "station/stop_signal.h"

namespace station {

class Workstation {
public:
    // Takes every resource that the command line names. Throws OptionError for one that cannot be had.
    Workstation(const Options& options, StopSignal& stop);

    // From power-on to power-off. Returns the exit status.
    int run();

private:
    void start_capture();
    void open_local_disk();

    // In a kernel thread of the machine.
    int live();
    bool start_driver();
    bool wait_for_luns();
    bool luns_may_come_later() const;
    void begin_synchronisation();
    void announce();
    void tell_of_servers();
    void watch();
    void shut_down();

    void write_files();

    const Options& options_;
    StopSignal& stop_;
    std::optional<MessageLog> log_;
    std::unique_ptr<machine::DriverImage> driver_;
    std::shared_ptr<machine::PacketCapture> capture_;
    std::unique_ptr<machine::UdpLink> link_;  // link and local disk outlive the machine
    std::optional<LocalDiskFile> local_disk_file_;
    std::optional<machine::LocalDisk> local_disk_;
    machine::Machine machine_;
    BootLoader boot_loader_;
    ExportedLuns luns_;
    DriverMessages messages_{luns_.statistics()};
    NbdServer server_;
    std::optional<Figures> figures_;
    std::optional<ServerRoll> servers_;
    bool shutting_down_ = false;
    bool capture_failed_ = false;
};

}  // namespace station
