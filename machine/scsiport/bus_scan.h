// SPDX-License-Identifier: MIT
// Finds the LUNs of the bus: at boot, and again in a system thread after the adapter reports a change.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <nt.h>

#include "machine/scsiport/scsi_port.h"

namespace machine {

class BusScan {
public:
    BusScan(ScsiPort& port, const PortConfig& config);

    // Scans now; scans of several threads follow each other. PASSIVE_LEVEL.
    void scan();
    // Asks for a scan in a system thread, at any IRQL. Requests that come before it starts share it.
    void request();

    std::vector<LunInfo> luns() const;
    unsigned scans() const { return scans_; }
    void set_listener(std::function<void()> listener);
    // The device object of a LUN that a scan has found, null when none has.
    PDEVICE_OBJECT device(unsigned lun) const { return devices_[lun]; }

private:
    void serve_requests();
    std::vector<LunInfo> look();
    bool inquire(std::uint8_t lun, LunInfo& info);
    std::uint32_t read_capacity(std::uint8_t lun);
    void look_closely(std::uint8_t lun);
    bool ask(std::uint8_t lun, const std::array<std::uint8_t, 16>& cdb, void* answer,
             std::uint32_t answer_bytes);

    ScsiPort& port_;
    const PortConfig config_;
    KEVENT turn_;  // signalled while nobody scans
    std::array<std::atomic<PDEVICE_OBJECT>, 256> devices_{};
    std::atomic<unsigned> scans_ = 0;

    mutable std::mutex lock_;
    std::vector<LunInfo> luns_;
    std::function<void()> listener_;
    bool wanted_ = false;
    bool thread_runs_ = false;
};

}  // namespace machine
