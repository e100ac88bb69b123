// SPDX-License-Identifier: MIT
// The companion transport driver \Device\QRNNDIS: a device with two control requests, three entry
// points for the driver, and its own boot parameter block.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "formats/boot_block.h"
#include "machine/transport/link.h"

namespace machine {

class Transport {
public:
    explicit Transport(Link& link);
    ~Transport();

    // The transport's own boot parameter block, as the driver reads it through the handover.
    // Disk_Nums: formats::disk_nums_searching until the disks are known, 0 when there are none.
    formats::Boot_Param& block();

    // Control requests complete at once, or after this long with STATUS_PENDING first.
    void set_pending_ms(std::int64_t ms);
    // The handover carries a null send entry (a transport that is not ready).
    void set_without_entries(bool on);
    // The handover carries a null pTrans_Flag.
    void set_without_flag(bool on);

    // Value of the flag word that the driver clears now and then, and setting it.
    std::uint32_t flag() const;
    void set_flag(std::uint32_t value);

    // The driver's boot parameter block as the last 0x8000100 and 0x8000104 request brought it.
    unsigned handshakes() const;
    unsigned no_server_notices() const;
    const formats::Boot_Param& received_block() const;

    // Buffers handed out by QRN_Recv and not yet released.
    unsigned unreleased() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace machine
