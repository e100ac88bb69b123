// SPDX-License-Identifier: MIT
// A read or write that a local disk has accepted, and what is the same in real and in simulated time when it
// is carried out. Any thread; a thread of a machine that is off gets no further than its next kernel routine.
#pragma once

#include <cstdint>

#include <nt.h>

#include "machine/disk/disk_state.h"

namespace machine {

struct DiskRequest {
    PIRP irp = nullptr;
    bool write = false;
    std::uint64_t sector = 0;
    std::uint32_t bytes = 0;
    std::uint8_t* buffer = nullptr;

    std::uint32_t count() const { return bytes / disk_sector_bytes; }
};

// How a request ends. One that fails or falls short gets through for some sectors at its beginning.
struct DiskFate {
    bool fails;
    std::uint32_t bytes;
};

// As the faults and the bad sectors want it.
DiskFate draw_fate(DiskState& state, const DiskRequest& request);

// The first bytes of a read, from the medium. False when the host fails.
bool read_medium(const DiskMedium& medium, const DiskRequest& request, std::uint32_t bytes);

// Counts the request. moved: the host did its part.
IO_STATUS_BLOCK result_of(DiskState& state, const DiskRequest& request, const DiskFate& fate, bool moved);

NTSTATUS complete_disk_irp(PIRP irp, const IO_STATUS_BLOCK& result);

}  // namespace machine
