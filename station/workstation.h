// SPDX-License-Identifier: MIT
// The workstation: a machine on the real scheduler with UDP beneath, the driver booted in it, and its
// LUNs exported. Made and run once, by main; what it started stands until the process ends.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "machine/disk/local_disk.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/packet_capture.h"
#include "machine/transport/udp_link.h"
#include "station/driver_messages.h"
#include "station/exports.h"
#include "station/local_boot.h"
#include "station/local_datagrams.h"
#include "station/message_log.h"
#include "station/nbd_server.h"
#include "station/options.h"
#include "station/server_roll.h"
#include "station/status_output.h"
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
    void boot_locally();
    void hand_over_boot_block();
    void write_low_memory(std::span<const std::uint8_t> bytes);
    void fill_registry();

    // In a kernel thread of the machine.
    int live();
    bool start_driver();
    bool wait_for_luns();
    bool luns_may_come_later() const;
    void find_luns();
    bool in_ram_cache(unsigned lun) const;
    void begin_synchronisation();
    void announce();
    void tell_of_servers();
    void watch();
    void shut_down();

    StationStatus status();
    SyncStatus synchronisation();
    bool filling_local_image();
    void write_statistics();

    const Options& options_;
    StopSignal& stop_;
    formats::Boot_Param block_;
    AllLunStatistics luns_;
    Synchronisation synchronisation_;
    std::optional<MessageLog> log_;
    std::unique_ptr<machine::DriverImage> driver_;
    std::shared_ptr<machine::PacketCapture> capture_;
    std::unique_ptr<machine::UdpLink> link_;  // link and local disk outlive the machine
    std::optional<LocalDiskFile> local_disk_file_;
    std::optional<machine::LocalDisk> local_disk_;
    machine::Machine machine_;
    std::uint64_t low_memory_next_;  // first byte of conventional memory that is free for a loader
    Exports exports_;
    NbdServer server_;
    StatusView view_;
    std::optional<ServerRoll> servers_;
    bool shutting_down_ = false;
    bool statistics_failed_ = false;
    bool capture_failed_ = false;

    mutable std::mutex found_lock_;  // guards found_
    std::vector<machine::LunInfo> found_;
};

}  // namespace station
