// SPDX-License-Identifier: MIT
// A tap between the driver's dispatch hook and the port driver: sees every SRB of the adapter on its
// way down, as the hook lets it through, and can keep one back for a while. One tap at a time; make it
// before the driver boots.
#pragma once

#include <functional>
#include <vector>

#include "tests/scenario/rig.h"

namespace scenario {

class DispatchTap {
public:
    explicit DispatchTap(Rig& rig);
    ~DispatchTap();
    DispatchTap(const DispatchTap&) = delete;
    DispatchTap& operator=(const DispatchTap&) = delete;

    struct Seen {
        PIRP irp;
        IO_STACK_LOCATION stack;
        PSCSI_REQUEST_BLOCK address;
        SCSI_REQUEST_BLOCK srb;  // as it was
        SRB_IO_CONTROL control;  // of an IO_CONTROL SRB
        bool notice() const { return srb.Function == SRB_FUNCTION_IO_CONTROL; }
        bool completes() const { return notice() && control.ReturnCode != 0; }
    };
    const std::vector<Seen>& seen() const { return seen_; }
    // The driver's own notices: those that complete an SRB, or those that do not.
    std::vector<Seen> notices(bool completing) const;

    // Called at up to DISPATCH_LEVEL for requests that carry an SRB. True: kept back until release().
    std::function<bool(const Seen&)> keep_back;
    void release();

    // Sends an internal device-control request with this first argument through the hook, which may be
    // none that the port driver knows: the tap completes it.
    void send_foreign(ULONG control_code, PVOID argument);

    PDRIVER_OBJECT driver() { return driver_; }
    // Called when the adapter's device object stands, before HwInitialize.
    std::function<void(PDRIVER_OBJECT)> before_initialize;

private:
    static NTSTATUS NTAPI dispatch(PDEVICE_OBJECT device, PIRP irp);
    NTSTATUS pass(PDEVICE_OBJECT device, PIRP irp);

    struct Kept {
        PDEVICE_OBJECT device;
        PIRP irp;
    };
    PDRIVER_OBJECT driver_ = nullptr;
    PDRIVER_DISPATCH port_dispatch_ = nullptr;
    PIRP foreign_ = nullptr;
    std::vector<Seen> seen_;
    std::vector<Kept> kept_;
};

}  // namespace scenario
