// SPDX-License-Identifier: MIT
// The interface of every backend to which the workers route a piece of a transfer.
#pragma once

#include <nt.h>

// Both operations work on a run of 512-byte sectors; Sector is an engine sector (LBA + 1), pBuffer
// resident memory, Bytes a positive multiple of 512. They may be called by several workers at once,
// at PASSIVE_LEVEL.
//
// Result: positive, the bytes done from the start of the run, perhaps fewer than Bytes; -n, the first n
// bytes were not done and go to the next backend. Never 0 for a non-empty run. An object that fails as
// a whole returns -Bytes; a layer passes a negative result from below unchanged.
//
// Ctx is opaque here: the worker block for network-backed objects, the disk number for image objects.
class QRNH_OBJ_RW {
public:
    virtual LONG Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) = 0;
    virtual LONG Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) = 0;

protected:
    ~QRNH_OBJ_RW() = default;
};
