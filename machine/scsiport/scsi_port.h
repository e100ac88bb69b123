// SPDX-License-Identifier: MIT
// The SCSI port driver and the disk class above it, in one: it registers the miniport, finds and
// starts its adapter, scans the bus, and carries SRBs from clients to the miniport and back.
//
// Kernel side (what the miniport sees): ScsiPortInitialize, ScsiPortNotification and an adapter device
// object of type FILE_DEVICE_CONTROLLER. Every miniport call but HwFindAdapter is made at
// DISPATCH_LEVEL under the adapter lock, one at a time.
// Client side (this header): requests to LUNs, any number at once, from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nt.h>

#include "machine/scsiport/port_config.h"

namespace machine {

struct Sense {
    std::uint8_t key = 0;
    std::uint8_t asc = 0;
    std::uint8_t ascq = 0;
    bool operator==(const Sense&) const = default;
};

// One SCSI request with everything it needs (SRB, IRP, sense buffer), made once and used again and
// again, so that the data path allocates nothing. Not copyable; idle or in flight.
class ScsiRequest {
public:
    explicit ScsiRequest(class ScsiPort& port);
    ~ScsiRequest();
    ScsiRequest(const ScsiRequest&) = delete;
    ScsiRequest& operator=(const ScsiRequest&) = delete;

    // Set before submission.
    std::uint8_t function = SRB_FUNCTION_EXECUTE_SCSI;
    std::uint8_t path = 0, target = 0, lun = 0;
    std::array<std::uint8_t, 16> cdb{};
    std::uint8_t cdb_bytes = 10;
    void* data = nullptr;
    std::uint32_t data_bytes = 0;
    std::uint32_t srb_flags = 0;  // SRB_FLAGS_DATA_IN ...
    std::uint32_t timeout_seconds = 10;
    std::uint8_t sense_buffer_bytes = 18;  // 0 to 255
    // Called once when the request is complete, at up to DISPATCH_LEVEL, outside all locks of the
    // port driver; it may submit requests, this one too, and must not wait.
    std::function<void(ScsiRequest&)> done;

    // Valid when complete.
    std::uint8_t srb_status = 0;  // SRB_STATUS_..., with its flag bits
    std::uint8_t scsi_status = 0;
    std::uint32_t transferred = 0;  // the SRB's DataTransferLength
    std::array<std::uint8_t, 255> sense_data{};
    std::optional<Sense> sense() const;  // when the SRB says that sense data is valid
    bool ok() const { return SRB_STATUS(srb_status) == SRB_STATUS_SUCCESS; }

    // Fills cdb, data and direction for READ(10) or WRITE(10). bytes is the data length; the block
    // count in the CDB is bytes / 512.
    void set_read(std::uint8_t lun, std::uint32_t lba, void* data, std::uint32_t bytes);
    void set_write(std::uint8_t lun, std::uint32_t lba, const void* data, std::uint32_t bytes);

    struct Internals;
    Internals& internals() { return *internals_; }

private:
    std::unique_ptr<Internals> internals_;
};

struct LunInfo {
    std::uint8_t lun;
    std::uint32_t sectors;  // READ CAPACITY + 1; 0: no medium
    std::array<std::uint8_t, 36> inquiry;
};

class ScsiPort {
public:
    explicit ScsiPort(const PortConfig& config = {});
    ~ScsiPort();
    ScsiPort(const ScsiPort&) = delete;
    ScsiPort& operator=(const ScsiPort&) = delete;

    // HwFindAdapter found the adapter and HwInitialize returned TRUE.
    bool adapter_started() const;
    std::uint32_t maximum_transfer_bytes() const;
    const PORT_CONFIGURATION_INFORMATION& configuration() const;

    // LUNs of the last bus scan. A scan runs at boot and, in a system thread, after every
    // BusChangeDetected.
    std::vector<LunInfo> luns() const;
    unsigned scans() const;
    // Scans the bus now (PASSIVE_LEVEL); without a started adapter it finds nothing. Called
    // once at boot.
    void scan();
    unsigned bus_changes() const;
    // Has a system thread scan the bus, as after BusChangeDetected; any IRQL.
    void request_scan();
    // Called after every scan, at PASSIVE_LEVEL.
    void set_scan_listener(std::function<void()> listener);

    // Starts a request; never waits. Queued behind others when the LUN cannot take it yet.
    void submit(ScsiRequest& request);
    // Submits and waits for the end (PASSIVE_LEVEL; request.done is not called).
    void execute(ScsiRequest& request);

    // Blocking conveniences for tests and tools; any length, split into largest transfers. True when
    // every SRB succeeded.
    bool read(std::uint8_t lun, std::uint32_t lba, void* data, std::uint32_t bytes);
    bool write(std::uint8_t lun, std::uint32_t lba, const void* data, std::uint32_t bytes);

    // SRB_FUNCTION_FLUSH and SRB_FUNCTION_SHUTDOWN to one LUN after the other, as an operating system going
    // down: to those of the last scan, LUN 0 last, or in the order given.
    void shutdown();
    void shutdown(const std::vector<std::uint8_t>& order);

    // Called once at PASSIVE_LEVEL between HwFindAdapter and HwInitialize, when the adapter's device object
    // stands in the driver's list: a place to put further device objects before it. Set before boot.
    void set_before_initialize(std::function<void(PDRIVER_OBJECT)> hook);
    // Has the miniport look for an adapter once more, as for a further bus, while nothing is in flight
    // (PASSIVE_LEVEL). Returns what HwFindAdapter returned, SP_RETURN_...; nothing is started.
    unsigned search_adapter_again();

    // The argument string that HwFindAdapter gets; empty by default. Set before boot.
    void set_adapter_arguments(std::string arguments);
    // HwInitialize once more, as after a change of power, at any time (PASSIVE_LEVEL). What it returned.
    bool initialize_again();

    // HwResetBus, as a class driver would ask for it.
    bool reset_bus();

    // The queue of a LUN freezes when an SRB fails without SRB_FLAGS_NO_QUEUE_FREEZE; the class
    // driver half releases it at once. False: leave it frozen (tests).
    void set_auto_release(bool on);
    void release_queue(std::uint8_t lun);
    bool frozen(std::uint8_t lun) const;

    // Requests handed to the miniport and not complete.
    unsigned in_flight() const;

    struct Internals;
    Internals& internals() { return *internals_; }

private:
    std::unique_ptr<Internals> internals_;
};

}  // namespace machine
