// SPDX-License-Identifier: MIT
// A miniport of a few RAM disks, whose every callback a test may replace. It watches the rules that the
// port driver must keep: one call at a time, at DISPATCH_LEVEL.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nt.h>

#include "machine/loader/driver_image.h"

class TestMiniport : public machine::DriverImage {
public:
    struct Extension {
        std::uint32_t words[5];
    };

    explicit TestMiniport(unsigned lun_count = 2, std::uint32_t lun_sectors = 64);

    Entry load() override;
    std::string name() const override { return "test miniport"; }

    // How the miniport registers and answers; a test changes these before boot.
    HW_INITIALIZATION_DATA registration{};
    std::function<ULONG(PORT_CONFIGURATION_INFORMATION&, BOOLEAN& again)> find_adapter;
    std::function<bool()> initialize = [] { return true; };
    std::function<void(PSCSI_REQUEST_BLOCK)> start_io = [this](PSCSI_REQUEST_BLOCK srb) { answer(srb); };
    std::function<void()> timer = [] {};
    std::function<void()> reset_bus = [] {};
    ULONG maximum_transfer_bytes = 65536;
    bool announce_next = true;  // NextRequest first thing in HwStartIo
    unsigned luns;
    std::map<unsigned, std::vector<std::uint8_t>> disks;  // by LUN; an empty disk has no medium

    // For the callbacks above.
    void answer(PSCSI_REQUEST_BLOCK srb);  // executes and completes
    void hold(PSCSI_REQUEST_BLOCK srb);    // reads and writes stay in held; all else is answered
    void complete(PSCSI_REQUEST_BLOCK srb, UCHAR srb_status);
    void next_request();
    void request_timer(ULONG delay_us);
    void bus_change();

    void* device_extension = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    NTSTATUS registration_status = 0;
    std::deque<PSCSI_REQUEST_BLOCK> held;
    std::vector<SCSI_REQUEST_BLOCK> seen;  // every SRB as it came to HwStartIo
    unsigned timer_calls = 0, resets = 0;
    // Rules that the port driver broke, in words; empty when all is well.
    std::string complaints;

private:
    class Entered;
    static TestMiniport* active;
    static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING path);
    static ULONG NTAPI hw_find_adapter(PVOID extension, PVOID, PVOID, PCHAR, PPORT_CONFIGURATION_INFORMATION,
                                       PBOOLEAN again);
    static BOOLEAN NTAPI hw_initialize(PVOID extension);
    static BOOLEAN NTAPI hw_start_io(PVOID extension, PSCSI_REQUEST_BLOCK srb);
    static BOOLEAN NTAPI hw_reset_bus(PVOID extension, ULONG path);
    static VOID NTAPI hw_timer(PVOID extension);

    UCHAR execute(SCSI_REQUEST_BLOCK& srb);
    UCHAR transfer(SCSI_REQUEST_BLOCK& srb);
    UCHAR check_condition(SCSI_REQUEST_BLOCK& srb, std::uint8_t key, std::uint8_t asc);

    unsigned depth_ = 0;
};
