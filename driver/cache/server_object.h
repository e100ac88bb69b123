// SPDX-License-Identifier: MIT
// The block object that is a disk's server: what a cache layer falls back to, and what owns the blocks that
// the disk fills. It has no state beyond the disk's number; Ctx is the worker block of the calling worker,
// whose packets carry the transfer. Any number of workers at once, PASSIVE_LEVEL, holding no lock.
#pragma once

#include "driver/block/block_object.h"

class SR_RW : public QRNH_OBJ_RW {
public:
    explicit SR_RW(ULONG Disk) : Lun(Disk) {}

    // While the worker runs a write, of this disk or, to bring back a block of this disk, of another.
    LONG Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;
    // While the worker runs a read of this disk: the request's own packet set-up serves.
    LONG Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override;

private:
    ULONG Lun;
};
